// A host of the family, to copy from. It shows the order in which a process starts the library's
// services and stops them again:
//
//   loadLogging, the defaults on the empty store, loadConfig, then the services;
//   web API, tasks, connections, saveConfig where settings changed, stopLibrary, deleteLogger.

#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/RegExpValidator.h>
#include <Poco/Util/ServerApplication.h>
#include <common/Config.h>
#include <common/Library.h>
#include <common/Logger.h>
#include <common/ThreadPool.h>
#include <common/WebHookBasic.h>

#include <csignal>
#include <iostream>

#include "FolderScan.h"
#include "HostLog.h"
#include "Microservice.h"
#include "Outages.h"
#include "Periodic.h"
#include "Progress.h"
#include "Server.h"
#include "Settings.h"
#include "Web.h"

namespace {

int fail(int exitCode, const std::string& reason) {
    std::cerr << "edge_host: " + reason + " (see --help)\n";  // in one go: the log goes there too
    return exitCode;
}

class EdgeHost : public Poco::Util::ServerApplication {
public:
    /// @return the process's exit code.
    int start(int argc, char** argv) {
        try {
            init(argc, argv);
            return run();
        } catch (const Poco::Exception& exc) {
            return fail(EXIT_USAGE, exc.displayText());
        }
    }

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    int showHelp();
    Settings loadSettings();
    void writeDefaults(const Settings& settings);
    void serve(const Settings& settings);

    bool _help = false;
    std::string _role;
    std::vector<std::pair<std::string, std::string>> _defaults;
};

void EdgeHost::defineOptions(Poco::Util::OptionSet& options) {
    using Poco::Util::Option;
    options.addOption(Option("help", "h", "show this text and end"));
    options.addOption(Option("role", "r", "server or microservice (setting host.role)")
                          .argument("ROLE")
                          .validator(new Poco::Util::RegExpValidator("server|microservice")));
    options.addOption(Option("default", "d", "value for the configuration file, where none exists")
                          .argument("KEY=VALUE")
                          .repeatable(true));
}

void EdgeHost::handleOption(const std::string& name, const std::string& value) {
    ServerApplication::handleOption(name, value);  // validates
    if (name == "help") {
        _help = true;
        stopOptionsProcessing();
    } else if (name == "role") {
        _role = value;
    } else if (name == "default") {
        const auto equals = value.find('=');
        if (equals == std::string::npos)
            throw Poco::InvalidArgumentException("no KEY=VALUE", value);
        _defaults.emplace_back(value.substr(0, equals), value.substr(equals + 1));
    }
}

int EdgeHost::showHelp() {
    Poco::Util::HelpFormatter help(options());
    help.setCommand(commandName());
    help.setUsage("[--role=server|microservice] [--default=KEY=VALUE ...]");
    help.setHeader(
        "Sample host: settings from kelhost/edge_host.json below XDG_CONFIG_HOME "
        "(~/.config), log in kelhost below XDG_DATA_HOME (~/.local/share). Ends on "
        "SIGINT or SIGTERM.");
    help.format(std::cout);
    return EXIT_OK;
}

// The defaults go into the store first: they become the file where there is none.
void EdgeHost::writeDefaults(const Settings& settings) {
    kel::initHttpOption();
    kel::initRpcOption();
    kel::initSSLOption();
    settings.store();
    for (const auto& [key, value] : _defaults) {
        if (!kel::configInstance().has(key)) {
            throw Poco::InvalidArgumentException("no such setting", key);
        }
        kel::configInstance().setString(key, value);
    }
}

Settings EdgeHost::loadSettings() {
    Settings settings;
    if (!_role.empty()) settings.role = _role;
    settings.clientId = "edge-" + settings.role;
    if (settings.role != "server") ++settings.webPort;  // both roles on one machine
    writeDefaults(settings);
    kel::loadConfig();
    settings.load();
    if (!_role.empty()) settings.role = _role;
    return settings;
}

std::shared_ptr<Node> makeNode(const Settings& settings) {
    if (settings.role == "server") return std::make_shared<Server>(settings);
    if (settings.role == "microservice") return std::make_shared<Microservice>(settings);
    throw Poco::DataFormatException("setting host.role is neither server nor microservice");
}

void startTasks(kel::TaskManager& tasks, const Settings& settings,
                const std::shared_ptr<Node>& node) {
    if (settings.askEvery > 0) {
        tasks.start(new Periodic("ask the peer", settings.askEvery, [node] { node->askPeer(); }));
    }
    if (!settings.scanFolder.empty()) tasks.start(new FolderScan(settings.scanFolder));
}

void EdgeHost::serve(const Settings& settings) {
    const auto web = std::make_shared<Web>(settings);  // first: with its port taken all is in vain
    const Outages outages;
    const std::shared_ptr<Node> node = makeNode(settings);
    node->start();
    web->start(node);
    kel::WebHookBasic::defaultWebHook()->reportServerKeepalive();  // the first report at once
    kel::TaskManager tasks;
    const Progress progress(tasks);
    startTasks(tasks, settings, node);
    poco_notice(hostLog(), settings.role + " is up");
    waitForTerminationRequest();
    poco_notice(hostLog(), settings.role + " is shutting down");
    web->stop();
    tasks.cancelAll();
    tasks.joinAll();
    node->stop();
}

int EdgeHost::main(const std::vector<std::string>& arguments) {
    if (_help) return showHelp();
    if (!arguments.empty()) return fail(EXIT_USAGE, "unexpected argument " + arguments.front());
    int result = EXIT_OK;
    try {
        kel::loadLogging();
        serve(loadSettings());
    } catch (const Poco::Exception& exc) {
        poco_fatal(hostLog(), exc.displayText());
        result = fail(EXIT_CONFIG, exc.displayText());
    }
    kel::stopLibrary();
    kel::deleteLogger();
    return result;
}

// Threads inherit the mask: so only the main thread takes these signals, when it waits for them.
void holdTerminationSignals() {
#if defined(POCO_OS_FAMILY_UNIX)
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    holdTerminationSignals();
    return EdgeHost().start(argc, argv);
}
