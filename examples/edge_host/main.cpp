// A host of the family, to copy from. It shows in which order a process starts the library's
// services and stops them again:
//
//   start: loadLogging, the defaults on the empty store, loadConfig, addMissingDefaults, services;
//   stop:  web API, tasks, connections, stopLibrary, deleteLogger.

#include <Poco/Task.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
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
#include <map>

#include "Roles.h"
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
    explicit EdgeHost(bool unixStyle) { setUnixOptions(unixStyle); }

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& arguments) override;

private:
    int showHelp();

    std::string _show;  // "help" or "version", and end
    std::string _role;
    std::map<std::string, std::string> _defaults;
};

void EdgeHost::defineOptions(Poco::Util::OptionSet& options) {
    using Poco::Util::Option;
    options.addOption(Option("help", "h", "show this text and end"));
    options.addOption(Option("version", "v", "show the version and end"));
    options.addOption(Option("role", "r", "server or microservice (setting host.role)")
                          .argument("ROLE")
                          .validator(new Poco::Util::RegExpValidator("server|microservice")));
    options.addOption(
        Option("default", "d", "value for a setting that the configuration file lacks")
            .argument("KEY=VALUE")
            .repeatable(true));
}

void EdgeHost::handleOption(const std::string& name, const std::string& value) {
    ServerApplication::handleOption(name, value);
    if (name == "role") {
        _role = value;
    } else if (name == "default") {
        const auto equals = value.find('=');
        if (equals == std::string::npos) {
            throw Poco::InvalidArgumentException("no KEY=VALUE", value);
        }
        _defaults[value.substr(0, equals)] = value.substr(equals + 1);
    } else {
        _show = name;
        stopOptionsProcessing();
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

class AskPeer : public Poco::Task {
public:
    AskPeer(std::shared_ptr<Node> node, long interval)
        : Poco::Task("ask the peer"), _node(std::move(node)), _interval(interval) {}

    void runTask() override {
        while (!sleep(_interval)) _node->askPeer();
    }

private:
    const std::shared_ptr<Node> _node;
    const long _interval;  // milliseconds
};

// The link is printed and not logged, because others may read the log.
void keepKeys(const StatusPage& page) {
    kel::saveConfig();
    std::cout << "edge_host: open " + page.link() + " (shown only this time)" << std::endl;
}

void serve(Settings settings) {
    // Comes first: with its port taken everything else is in vain, and the file stays as it is.
    const auto sockets = StatusPage::listen(settings.page);
    kel::addMissingDefaults();  // to the file of an older release
    const bool hasNewKeys = settings.page.makeKeys();
    const auto web = std::make_shared<StatusPage>(settings.page, sockets);
    const std::shared_ptr<Node> node = makeNode(settings);
    node->start();
    web->start(node);
    if (hasNewKeys) keepKeys(*web);  // not before the page is served: this start may yet fail
    kel::WebHookBasic::defaultWebHook()->reportServerKeepalive();  // the first report at once
    kel::TaskManager tasks;
    if (settings.askEvery > 0) tasks.start(new AskPeer(node, settings.askEvery));
    kel::logLine(Poco::Message::PRIO_NOTICE, settings.role + " is up");
    kel::waitForTerminationRequest();
    kel::logLine(Poco::Message::PRIO_NOTICE, settings.role + " is shutting down");
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
        serve(loadSettings(_role, _defaults));
    } catch (const std::exception& exc) {
        const auto* poco = dynamic_cast<const Poco::Exception*>(&exc);
        const std::string reason = poco ? poco->displayText() : exc.what();
        kel::logLine(Poco::Message::PRIO_FATAL, reason);
        result = fail(EXIT_CONFIG, reason);
    }
    kel::stopLibrary();
    kel::deleteLogger();
    return result;
}

// POCO reads "/role=server" on Windows and "--role=server" elsewhere. Here the first one decides.
int run(const std::vector<std::string>& arguments) {
    const bool unixStyle = arguments.size() < 2 || arguments[1].compare(0, 1, "/") != 0;
    try {
        // To try the options: EdgeHost::run() would log what is wrong with them and end with
        // another exit code.
        EdgeHost(unixStyle).init(arguments);
    } catch (const Poco::Exception& exc) {
        return fail(EdgeHost::EXIT_USAGE, exc.displayText());
    }
    return EdgeHost(unixStyle).run(arguments);
}

}  // namespace

}  // namespace edge

int main(int argc, char** argv) {
    kel::catchTerminationRequests();
    return edge::run({argv, argv + argc});
}
