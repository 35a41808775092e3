// A host of the family, to copy from. It shows the order in which a process starts the library's
// services and stops them again:
//
//   loadLogging, the defaults on the empty store, loadConfig, then the services;
//   web API, tasks, connections, saveConfig where settings changed, stopLibrary, deleteLogger.

#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionProcessor.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/RegExpValidator.h>
#include <Poco/Util/ServerApplication.h>
#include <common/Config.h>
#include <common/Library.h>
#include <common/Logger.h>
#include <common/Termination.h>
#include <common/ThreadPool.h>
#include <common/WebHookBasic.h>
#include <status_page/StatusPage.h>

#include <iostream>

#include "Log.h"
#include "Microservice.h"
#include "Outages.h"
#include "Periodic.h"
#include "Server.h"
#include "Settings.h"

namespace edge {

namespace {

using status_page::StatusPage;

int fail(int exitCode, const std::string& reason) {
    std::cerr << "edge_host: " + reason + " (see --help)\n";  // in one go: the log goes there too
    return exitCode;
}

// POCO's class reports to the service manager where the host is started as a Windows service. Its
// own options are left out: a service manager starts and stops the host on every system.
class EdgeHost : public Poco::Util::ServerApplication {
public:
    /// @return the process's exit code.
    int start(int argc, char** argv);

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    using Arguments = std::vector<std::string>;

    void checkOptions(const Arguments& arguments, bool unixStyle);
    int showHelp();
    Settings loadSettings();
    Settings defaults() const;
    void makeKeys(Settings& settings);
    void serve(const Settings& settings);

    std::string _show;  // "help" or "version", and end
    std::string _role;
    std::vector<std::pair<std::string, std::string>> _defaults;
    bool _hasNewKeys = false;
};

// POCO reads "/role=server" on Windows and "--role=server" elsewhere. Here the first one decides.
int EdgeHost::start(int argc, char** argv) {
    const Arguments arguments(argv, argv + argc);
    const bool unixStyle = argc < 2 || argv[1][0] != '/';
    try {
        checkOptions(arguments, unixStyle);
    } catch (const Poco::Exception& exc) {
        return fail(EXIT_USAGE, exc.displayText());
    }
    setUnixOptions(unixStyle);
    return run(arguments);
}

bool endsAtOnce(const std::string& option) {
    return option == "help" || option == "version";
}

// Before POCO reads them, which would log what is wrong with them and end with another exit code.
void EdgeHost::checkOptions(const Arguments& arguments, bool unixStyle) {
    Poco::Util::OptionSet known;
    defineOptions(known);
    Poco::Util::OptionProcessor processor(known);
    processor.setUnixStyle(unixStyle);
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        std::string name, value;
        if (!processor.process(arguments[i], name, value) || name.empty()) continue;
        if (endsAtOnce(name)) return;
        Poco::Util::Validator* const validator = known.getOption(name).validator();
        if (validator) validator->validate(known.getOption(name), value);
        if (name == "default" && value.find('=') == std::string::npos) {
            throw Poco::InvalidArgumentException("no KEY=VALUE", value);
        }
    }
    processor.checkRequired();
}

void EdgeHost::defineOptions(Poco::Util::OptionSet& options) {
    using Poco::Util::Option;
    options.addOption(Option("help", "h", "show this text and end"));
    options.addOption(Option("version", "v", "show the version and end"));
    options.addOption(Option("role", "r", "server or microservice (setting host.role)")
                          .argument("ROLE")
                          .validator(new Poco::Util::RegExpValidator("server|microservice")));
    options.addOption(Option("default", "d", "value for the configuration file, where none exists")
                          .argument("KEY=VALUE")
                          .repeatable(true));
}

void EdgeHost::handleOption(const std::string& name, const std::string& value) {
    ServerApplication::handleOption(name, value);
    if (endsAtOnce(name)) {
        _show = name;
        stopOptionsProcessing();
    } else if (name == "role") {
        _role = value;
    } else if (name == "default") {
        const auto equals = value.find('=');
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

// They become the file where there is none.
Settings EdgeHost::defaults() const {
    Settings settings;
    if (!_role.empty()) settings.role = _role;
    settings.clientId = "edge-" + settings.role;
    if (settings.role != "server") {  // both roles on one machine
        ++settings.page.port;
        ++settings.page.tlsPort;
    }
    kel::initHttpOption();
    kel::initRpcOption();
    kel::initSSLOption();
    settings.store();
    for (const auto& [key, value] : _defaults) replaceDefault(key, value);
    return settings;
}

// The library would carry on with the defaults; a host that did so would run as another one than it
// was set up to be.
void loadConfig() {
    kel::loadConfig();
    const std::string error = kel::lastConfigError();
    if (!error.empty()) throw Poco::FileException("configuration", error);
}

Settings EdgeHost::loadSettings() {
    Settings settings = defaults();
    Settings checked = settings;
    checked.load();  // a bad value from the command line ends here and gets into no file
    loadConfig();
    settings.load();
    if (!_role.empty()) settings.role = _role;
    makeKeys(settings);
    return settings;
}

// At the first start, and where the file is of a release that had none. They are saved, and the
// link with the key is shown, once the page is served: a start that fails earlier is not the first.
void EdgeHost::makeKeys(Settings& settings) {
    _hasNewKeys = settings.page.key.empty() || settings.page.hookSecret.empty();
    if (settings.page.key.empty()) settings.page.key = status_page::makeKey();
    if (settings.page.hookSecret.empty()) settings.page.hookSecret = status_page::makeKey();
    kel::configInstance().setString("http.key", settings.page.key);
    kel::configInstance().setString("http.hookSecret", settings.page.hookSecret);
}

std::shared_ptr<Node> makeNode(const Settings& settings) {
    if (settings.role == "server") return std::make_shared<Server>(settings);
    return std::make_shared<Microservice>(settings);
}

// The link is printed and not logged: others may read the log.
void keepKeys(const StatusPage& page) {
    kel::saveConfig();
    std::cout << "edge_host: open " + page.link() + " (shown only this time)" << std::endl;
}

void EdgeHost::serve(const Settings& settings) {
    // First of all: with its port taken everything else is in vain.
    const auto sockets = StatusPage::listen(settings.page);
    const auto web = std::make_shared<StatusPage>(settings.page, sockets);
    const Outages outages;
    const std::shared_ptr<Node> node = makeNode(settings);
    node->start();
    web->start(node);
    if (_hasNewKeys) keepKeys(*web);
    kel::WebHookBasic::defaultWebHook()->reportServerKeepalive();  // the first report at once
    kel::TaskManager tasks;
    if (settings.askEvery > 0) {
        tasks.start(new Periodic("ask the peer", settings.askEvery, [node] { node->askPeer(); }));
    }
    poco_notice(hostLog(), settings.role + " is up");
    kel::waitForTerminationRequest();
    poco_notice(hostLog(), settings.role + " is shutting down");
    web->stop();
    tasks.cancelAll();
    tasks.joinAll();
    node->stop();
}

int EdgeHost::main(const std::vector<std::string>& arguments) {
    if (_show == "help") return showHelp();
    if (_show == "version") {
        std::cout << "edge_host " EDGE_HOST_VERSION << std::endl;
        return EXIT_OK;
    }
    if (!arguments.empty()) return fail(EXIT_USAGE, "unexpected argument " + arguments.front());
    int result = EXIT_OK;
    try {
        kel::loadLogging();
        serve(loadSettings());
    } catch (const std::exception& exc) {
        const auto* poco = dynamic_cast<const Poco::Exception*>(&exc);
        const std::string reason = poco ? poco->displayText() : exc.what();
        poco_fatal(hostLog(), reason);
        result = fail(EXIT_CONFIG, reason);
    }
    kel::stopLibrary();
    kel::deleteLogger();
    return result;
}

}  // namespace

}  // namespace edge

int main(int argc, char** argv) {
    kel::catchTerminationRequests();
    return edge::EdgeHost().start(argc, argv);
}
