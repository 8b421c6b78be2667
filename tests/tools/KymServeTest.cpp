// kym serve as the page reaches it: the built program started as a user
// starts it, on a free loopback port of a real site, asked over real HTTP
// connections, and what it saved read back through the library.
#include "kym/Configuration.h"
#include "kym/ConfigurationSettings.h"

#include "support/Processes.h"
#include "support/Site.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/process/args.hpp>
#include <boost/process/child.hpp>
#include <boost/process/io.hpp>
#include <boost/process/pipe.hpp>

#include <optional>
#include <regex>

#ifndef _WIN32
#include <signal.h>
#endif

namespace {

using namespace KymTest;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace bp = boost::process;
namespace json = boost::json;

struct Reply {
    int status = 0;
    std::string contentType;
    std::string body;
    json::value document() const { return json::parse(body); }
};

class KymServe : public ::testing::Test {
protected:
    KymServe() {
        site.writeReleaseNames();
        site.writeVersionFiles({{"config/readme", "release files\n"}});
        for (const std::vector<std::string>& command :
             {std::vector<std::string>{"dept", "create", "Design"}, {"var", "set", "dept:Design", "UGII_LANG", "german"}}) {
            const Outcome outcome = runProgram(KYM_COMMAND, command);
            EXPECT_EQ(outcome.status, 0) << outcome.err;
        }
        fs::create_directories(temporary);
        temporaryVariable.emplace(TemporaryVariable, temporary.string());
        server = bp::child(KYM_COMMAND, bp::args({"serve", "--port", "0"}), bp::std_out > output, bp::std_in < bp::null);
        std::string line;
        std::getline(output, line);
        std::smatch match;
        const std::string address = boost::algorithm::trim_right_copy(line);
        EXPECT_TRUE(std::regex_match(address, match, std::regex(R"(http://127\.0\.0\.1:(\d+)/([0-9a-f]{64})/)")))
            << line;
        port = static_cast<unsigned short>(std::stoi(match[1]));
        secret = match[2];
        host = "127.0.0.1:" + std::to_string(port);
    }

    ~KymServe() override {
        if (server.running()) server.terminate();
    }

    Reply ask(http::verb method, const std::string& target, const std::string& body = "",
              const std::vector<std::pair<std::string, std::string>>& headers = {}) {
        asio::io_context context;
        beast::tcp_stream stream(context);
        stream.connect(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
        http::request<http::string_body> request(method, target, 11);
        request.set(http::field::host, host);
        for (const auto& [name, value] : headers) request.set(name, value);
        request.body() = body;
        request.prepare_payload();
        http::write(stream, request);
        return receive(stream);
    }

    static Reply receive(beast::tcp_stream& stream) {
        beast::flat_buffer buffer;
        http::response_parser<http::string_body> parser;
        parser.body_limit(64 * 1024 * 1024);
        http::read(stream, buffer, parser);
        const auto& response = parser.get();
        return {static_cast<int>(response.result_int()), std::string(response[http::field::content_type]),
                response.body()};
    }

    Reply run(const json::array& command) {
        return ask(http::verb::post, "/" + secret + "/api/run", json::serialize(json::object{{"command", command}}));
    }

#ifdef _WIN32
    static constexpr const char* TemporaryVariable = "TMP";
#else
    static constexpr const char* TemporaryVariable = "TMPDIR";
#endif

    Site site;
    // The server's own folder for the requests it passes on.
    fs::path temporary = site.root() / "tmp";
    std::optional<ScopedEnv> temporaryVariable;
    bp::ipstream output;
    bp::child server;
    unsigned short port = 0;
    std::string secret;
    std::string host;
};

TEST_F(KymServe, OnlyItsOwnAddressWithItsSecretIsAnswered) {
    const std::string page = "/" + secret + "/";
    const Reply shown = ask(http::verb::get, page);
    EXPECT_EQ(shown.status, 200);
    EXPECT_EQ(shown.contentType, "text/html; charset=utf-8");
    EXPECT_TRUE(boost::contains(shown.body, "<title>kym</title>"));
    EXPECT_EQ(ask(http::verb::get, page + "kym.js").contentType, "text/javascript; charset=utf-8");
    EXPECT_EQ(ask(http::verb::get, page, "", {{"Host", "localhost:" + std::to_string(port)}}).status, 200);

    using Refusal = std::pair<int, std::string>;
    const auto refusal = [](const Reply& reply) {
        return Refusal{reply.status, std::string(reply.document().at("error").as_string())};
    };
    EXPECT_EQ(refusal(ask(http::verb::get, "/")),
              (Refusal{403, "Refused: open the address that kym serve printed, with its secret."}));
    EXPECT_EQ(refusal(ask(http::verb::get, "/" + std::string(64, '0') + "/")).first, 403);
    // A name that resolves to this machine (DNS rebinding) or another local port.
    EXPECT_EQ(refusal(ask(http::verb::get, page, "", {{"Host", "attacker.example:" + std::to_string(port)}})),
              (Refusal{403, "Refused: the request is not addressed to " + host + "."}));
    // A page of another site that the user visits.
    EXPECT_EQ(refusal(ask(http::verb::post, page + "api/run", R"({"command": ["departments"]})",
                          {{"Origin", "http://attacker.example"}})),
              (Refusal{403, "Refused: the request comes from another site (http://attacker.example)."}));
    EXPECT_EQ(ask(http::verb::post, page + "api/run", R"({"command": ["departments"]})", {{"Origin", "http://" + host}})
                  .status,
              200);
}

TEST_F(KymServe, ACommandIsAnsweredWithWhatKymPrintsWithJsonAndOnlyThePagesCommandsRun) {
    const Outcome departments = runProgram(KYM_COMMAND, {"departments", "--json"});
    const Reply listed = run({"departments"});
    EXPECT_EQ(listed.status, 200);
    EXPECT_EQ(listed.document(), json::parse(departments.out));

    const Reply missing = run({"apps", "Nowhere"});
    EXPECT_EQ(missing.status, 422);
    EXPECT_EQ(missing.document().at("status"), 1);
    EXPECT_TRUE(boost::contains(missing.document().at("error").as_string(), "'Nowhere' does not exist")) << missing.body;

    // Any program (run), the repair of files and the server itself are not the page's to start.
    for (const json::array& command : {json::array{"run", "Design", "--", "sh"}, json::array{"repair", "base"},
                                       json::array{"serve"}, json::array{}})
        EXPECT_EQ(run(command).status, 403) << json::serialize(command);
    EXPECT_EQ(ask(http::verb::put, "/" + secret + "/api/run", "{}").status, 405);
    EXPECT_EQ(ask(http::verb::get, "/" + secret + "/nothing.html").status, 404);
    EXPECT_EQ(ask(http::verb::post, "/" + secret + "/api/run", R"({"command": [1]})").status, 400);
}

TEST_F(KymServe, MalformedAndOversizedRequestsAreAnsweredAndTheServerGoesOn) {
    // What is sent as it is; the server answers before it has read all of it.
    const auto raw = [this](const std::string& text) {
        asio::io_context context;
        beast::tcp_stream stream(context);
        stream.connect(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
        asio::write(stream, asio::buffer(text));
        return receive(stream).status;
    };
    EXPECT_EQ(raw("NOT HTTP AT ALL\r\n\r\n"), 400);
    // Sent whole, as a browser sends it: the answer is not lost to a reset connection.
    EXPECT_EQ(raw("POST /" + secret + "/api/run HTTP/1.1\r\nHost: " + host +
                  "\r\nContent-Length: 5242880\r\n\r\n" + std::string(5242880, ' ')),
              413);
    EXPECT_EQ(raw("GET /" + secret + "/ HTTP/1.1\r\nHost: " + host + "\r\nX-Long: " + std::string(100000, 'x') +
                  "\r\n\r\n"),
              413);
    EXPECT_EQ(ask(http::verb::post, "/" + secret + "/api/run", "{\"command\": [").status, 400);
    EXPECT_EQ(ask(http::verb::post, "/" + secret + "/api/import", R"({"layer": 7})").status, 400);
    EXPECT_EQ(run({"departments"}).status, 200);
}

TEST_F(KymServe, OfTwoClientsSavingOneDepartmentTheSecondIsRefusedUntilItHasReadTheFirstsEdit) {
    const auto exported = [this] { return run({"export", "dept:Design"}).document().as_object(); };
    const auto withVariable = [](json::object document, const char* name) {
        document["variables"].as_object()["common"].as_array().push_back(json::object{{"name", name}, {"value", "1"}});
        return document;
    };
    const auto save = [this](const json::object& document) {
        return ask(http::verb::post, "/" + secret + "/api/import",
                   json::serialize(json::object{
                       {"layer", "dept:Design"}, {"document", document}, {"revision", document.at("revision")}}));
    };
    const json::object first = exported();
    const json::object second = exported();
    EXPECT_EQ(save(withVariable(first, "FIRST")).status, 200);

    const Reply refused = save(withVariable(second, "SECOND"));
    EXPECT_EQ(refused.status, 409);
    EXPECT_TRUE(boost::contains(refused.document().at("error").as_string(), "was saved by someone else")) << refused.body;
    EXPECT_EQ(save(withVariable(exported(), "SECOND")).status, 200);

    const Kym::Configuration design(site.departmentsPath() / "Design", true);
    EXPECT_EQ(variableTexts(design.settings()->commonVariableList()),
              (std::vector<std::string>{"UGII_LANG=german", "FIRST=1", "SECOND=1"}));
}

#ifndef _WIN32
TEST_F(KymServe, CtrlCStopsTheServerAndItLeavesNothingBehind) {
    ::kill(server.id(), SIGINT);
    server.wait();
    EXPECT_EQ(server.exit_code(), 0);
    std::string rest((std::istreambuf_iterator<char>(output)), std::istreambuf_iterator<char>());
    EXPECT_EQ(rest, "");
    EXPECT_TRUE(fs::is_empty(temporary));
}
#endif

} // namespace
