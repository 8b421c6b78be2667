// kym serve: the launcher and the configure program in the user's browser.
// The page asks the server for what kym's commands show and do, and the
// server runs this very kym for each request, in a child process: the page
// shows exactly what the commands print with --json, every edit takes the
// commands' locks and checks, and a request that fails leaves the server as
// it was.
#include "Command.h"
#include "HttpServer.h"
#include "PageFiles.h"
#include "SiteAccess.h"

#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"

#include "base/Environment.h"
#include "base/FileManager.h"
#include "base/Task.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/dll/runtime_symbol_info.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/json.hpp>
#include <boost/process/args.hpp>
#include <boost/process/child.hpp>
#include <boost/process/io.hpp>

#include <array>
#include <atomic>
#include <iostream>
#include <mutex>
#include <random>
#include <sstream>

namespace KymTool {

namespace {

namespace json = boost::json;

// The commands the page may run, by their words; the arguments that follow
// are the command's own. Programs other than a department's applications
// (kym run), replacing damaged files (kym repair) and the server itself are
// not among them.
const std::vector<std::vector<std::string>>& allowedCommands() {
    static const std::vector<std::vector<std::string>> commands = {
        {"departments"}, {"apps"}, {"env"}, {"diff"}, {"check"}, {"command"}, {"launch"}, {"doctor"}, {"export"},
        {"dept", "show"}, {"dept", "create"}, {"dept", "rename"}, {"dept", "delete"}, {"dept", "set"},
        {"dept", "update"}, {"workdir", "list"}, {"workdir", "add"}, {"workdir", "remove"},
        {"var", "list"}, {"var", "set"}, {"var", "remove"}, {"app", "list"}, {"app", "add"}, {"app", "set"},
        {"app", "remove"}, {"overlay", "list"}, {"overlay", "set"}, {"overlay", "remove"}, {"plugin", "list"},
        {"plugin", "create"}, {"plugin", "rename"}, {"plugin", "delete"}, {"plugin", "set-type"},
        {"plugin", "disable"}, {"plugin", "enable"},
        {"site", "show"}, {"site", "set"}, {"sysinfo", "show"}, {"sysinfo", "set"}};
    return commands;
}

bool allowed(const std::vector<std::string>& words) {
    for (const std::vector<std::string>& command : allowedCommands())
        if (words.size() >= command.size() && std::equal(command.begin(), command.end(), words.begin())) return true;
    return false;
}

// 32 bytes from the system's random source, as 64 hexadecimal digits.
std::string newSecret() {
    std::random_device source;
    std::ostringstream text;
    for (int index = 0; index < 8; ++index) {
        text.width(8);
        text.fill('0');
        text << std::hex << static_cast<std::uint32_t>(source());
    }
    return text.str();
}

HttpResponse jsonResponse(int status, const std::string& body) { return {status, "application/json", body}; }

HttpResponse failure(int status, const std::string& message) {
    json::object error{{"error", message}, {"status", status}};
    return jsonResponse(status, json::serialize(error));
}

class WebApi {
public:
    WebApi(fs::path program, std::string secret) : mProgram(std::move(program)), mSecret(std::move(secret)) {
        mWork = fs::temp_directory_path() / fs::unique_path("kym-serve-%%%%-%%%%-%%%%");
        fs::create_directory(mWork);
        fs::permissions(mWork, fs::owner_all);
    }
    ~WebApi() {
        boost::system::error_code ignored;
        fs::remove_all(mWork, ignored);
    }

    void setPort(unsigned short port) { mPort = port; }
    // Private to the user; removed when the server stops.
    const fs::path& folder() const { return mWork; }
    std::string address() const { return "http://127.0.0.1:" + std::to_string(mPort) + "/" + mSecret + "/"; }

    HttpResponse handle(const HttpRequest& request) {
        // Another local user, a page the user visits or a name that resolves to
        // this machine must not reach the settings: only this address, with its secret.
        const std::string self = "127.0.0.1:" + std::to_string(mPort);
        const std::string named = "localhost:" + std::to_string(mPort);
        if (request.host != self && request.host != named)
            return failure(403, "Refused: the request is not addressed to " + self + ".");
        if (!request.origin.empty() && request.origin != "http://" + self && request.origin != "http://" + named)
            return failure(403, "Refused: the request comes from another site (" + request.origin + ").");
        const std::string prefix = "/" + mSecret + "/";
        if (!boost::starts_with(request.target, prefix))
            return failure(403, "Refused: open the address that kym serve printed, with its secret.");
        const std::string path = request.target.substr(prefix.size(), request.target.find('?') - prefix.size());

        if (request.method == "GET") {
            const std::string name = path.empty() ? "index.html" : path;
            for (const PageFile& file : pageFiles())
                if (name == file.name) return {200, contentType(name), file.text};
            return failure(404, "Not found: " + name + ".");
        }
        if (request.method != "POST") return failure(405, "Use GET for the page and POST for its requests.");
        if (path == "api/run") return run(request.body);
        if (path == "api/import") return import(request.body);
        return failure(404, "Not found: " + path + ".");
    }

private:
    static std::string contentType(const std::string& name) {
        if (boost::ends_with(name, ".html")) return "text/html; charset=utf-8";
        if (boost::ends_with(name, ".css")) return "text/css; charset=utf-8";
        return "text/javascript; charset=utf-8";
    }

    // {"command": ["apps", "Design"]}: what kym --json prints for it, with
    // the HTTP status 200 when kym succeeded and 422 with kym's error
    // document ({"error", "status"}) when it did not.
    HttpResponse run(const std::string& body) {
        boost::system::error_code error;
        const json::value request = json::parse(body, error);
        const json::array* command = error || !request.is_object() ? nullptr : request.as_object().if_contains("command")
                                                                                   ? request.at("command").if_array()
                                                                                   : nullptr;
        if (!command) return failure(400, "The request is not {\"command\": [WORDS...]}.");
        std::vector<std::string> words;
        for (const json::value& word : *command) {
            if (!word.is_string()) return failure(400, "Every word of the command is a string.");
            words.emplace_back(word.get_string());
        }
        if (!allowed(words)) return failure(403, "The page may not run 'kym " + boost::algorithm::join(words, " ") + "'.");
        return runKym(words);
    }

    // {"layer": "dept:Design", "document": {...}, "revision": "..."}: kym
    // import of the document, refused with 409 when the layer changed since
    // the page read it at that revision.
    HttpResponse import(const std::string& body) {
        boost::system::error_code error;
        const json::value request = json::parse(body, error);
        const json::object* fields = error ? nullptr : request.if_object();
        const json::value* layer = fields ? fields->if_contains("layer") : nullptr;
        const json::value* document = fields ? fields->if_contains("document") : nullptr;
        const json::value* revision = fields ? fields->if_contains("revision") : nullptr;
        if (!layer || !layer->is_string() || !document || !document->is_object() || (revision && !revision->is_string()))
            return failure(400, "The request is not {\"layer\": LAYER, \"document\": {...}, \"revision\": TEXT}.");
        const fs::path file = mWork / ("document-" + std::to_string(++mRequests) + ".json");
        Base::FileManager::writeFileAtomically(file, json::serialize(*document));
        std::vector<std::string> words{"import", std::string(layer->get_string()), file.string()};
        if (revision) words.insert(words.end(), {"--revision", std::string(revision->get_string())});
        HttpResponse response = runKym(words);
        fs::remove(file, error);
        return response;
    }

    HttpResponse runKym(std::vector<std::string> words) {
        words.insert(words.begin(), "--json");
        const std::string number = std::to_string(++mRequests);
        const fs::path request = mWork / ("request-" + number + ".json");
        const fs::path result = mWork / ("result-" + number + ".json");
        json::array array;
        for (const std::string& word : words) array.emplace_back(word);
        Base::FileManager::writeFileAtomically(request, json::serialize(array));
        int status = -1;
        try {
            namespace bp = boost::process;
            // One start at a time: a child started meanwhile would inherit the
            // other's descriptors, and its request wait for the other child.
            std::unique_lock<std::mutex> starting(mStarting);
            bp::child child(mProgram, bp::args({"--request", request.string(), "--result", result.string()}),
                            bp::std_in < bp::null);
            starting.unlock();
            child.wait();
            status = child.exit_code();
        } catch (const std::exception& error) {
            return failure(500, std::string("kym could not be started: ") + error.what());
        }
        std::string answer;
        boost::system::error_code error;
        if (fs::exists(result, error)) answer = Base::FileManager::readFile(result);
        fs::remove(request, error);
        fs::remove(result, error);
        if (status == 0) return jsonResponse(200, answer.empty() ? "{}" : answer);
        // A report that found problems (kym doctor) is an answer too.
        const json::value whole = json::parse(answer, error);
        if (!error && whole.is_object() && !whole.as_object().contains("error")) return jsonResponse(200, answer);
        // The error document is the last line of what kym wrote.
        while (!answer.empty() && answer.back() == '\n') answer.pop_back();
        const std::size_t lineStart = answer.rfind('\n');
        const std::string last = lineStart == std::string::npos ? answer : answer.substr(lineStart + 1);
        if (status == 3) return jsonResponse(409, last);
        return jsonResponse(422, last.empty() ? "{\"error\": \"kym failed.\", \"status\": 1}" : last);
    }

    fs::path mProgram;
    std::string mSecret;
    fs::path mWork;
    unsigned short mPort = 0;
    std::atomic<unsigned long> mRequests{0};
    std::mutex mStarting;
};

// The site's browser where one is set (the Unix clients'); otherwise what
// Windows opens addresses with. The browser gets a file that leads to the
// address, not the address: a command line is visible to every local user.
void openInBrowser(const std::string& address, const fs::path& folder) {
    const fs::path page = folder / "open.html";
    Base::FileManager::writeFileAtomically(
        page, "<!doctype html><meta charset=\"utf-8\"><meta http-equiv=\"refresh\" content=\"0; url=" + address +
                  "\"><title>kym</title><a href=\"" + address + "\">Open kym</a>\n");
    fs::path browser = Kym::SiteInformation().getWebBrowser();
    const std::string systemRoot = Base::Environment::getEnvVariable("SystemRoot");
    boost::system::error_code error;
    if (!fs::exists(browser, error) && !systemRoot.empty()) browser = fs::path(systemRoot) / "explorer.exe";
    Base::Task(browser, {page.string()});
}

struct ServeOptions {
    unsigned short port = 0;
    bool open = false;
};

int serve(Context& context, const ServeOptions& options) {
    prepareStores();
    WebApi api(boost::dll::program_location(), newSecret());
    HttpServer server(options.port, [&api](const HttpRequest& request) { return api.handle(request); });
    api.setPort(server.port());
    *context.out << api.address() << std::endl;
    context.progress("Serving the site of " + native(Kym::SystemInformation().localDepartmentsPath()) +
                     " to this machine only; Ctrl-C stops.");
    if (options.open) {
        try {
            openInBrowser(api.address(), api.folder());
        } catch (const std::exception& error) {
            *context.err << "kym: the browser did not start (" << error.what() << "); open the address above."
                         << std::endl;
        }
    }
    server.run();
    return 0;
}

} // namespace

void addServeCommand(Commands& commands) {
    Context& context = commands.context();
    auto options = std::make_shared<ServeOptions>();
    CLI::App* serveCommand = commands.command(
        &commands.root(), "serve",
        "Show the launcher and the configure program in a browser. Prints the address to open as its first line; "
        "the address holds a secret made for this start, and the server answers only this machine, at that "
        "address, until Ctrl-C.",
        "  kym serve\n  kym serve --open\n  kym serve --port 8080\n",
        [&context, options] { return serve(context, *options); });
    serveCommand->add_option("--port", options->port, "The port (default: a free one)");
    serveCommand->add_flag("--open", options->open, "Open the address in the user's browser");
}

} // namespace KymTool
