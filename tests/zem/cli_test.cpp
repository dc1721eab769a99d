// The program zem from outside: its command line, outputs, exit codes, and what it makes of servers
// that are none.
#include <atomic>

#include "tests/zem/zemcli.h"

namespace {

TEST_F(ZemCli, HelpAndVersionGoToStdoutWithCode0) {
    const Outcome help = Run({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_TRUE(Has(help.out, "Exit codes:"));
    EXPECT_EQ(help.err, "");
    const Outcome version = Run({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.rfind("zem ", 0), 0u);
}

TEST_F(ZemCli, EveryVerbHasHelp) {
    for (const char* verb :
         {"put",    "import",    "export",   "framemd5", "read",       "frames", "info",  "marks",
          "df",     "stat",      "rm",       "mv",       "mkdir",      "stripe", "erase", "flush",
          "status", "clients",   "get",      "top",      "bench",      "doctor", "join",  "leave",
          "config", "keepalive", "realtime", "manual",   "completion", "help"}) {
        const Outcome help = Run({verb, "--help"});
        EXPECT_EQ(help.code, 0) << verb;
        EXPECT_TRUE(Has(help.out, std::string("Usage: zem ") + verb)) << verb << help.out;
        EXPECT_TRUE(Has(help.out, "--json") || std::string(verb) == "config") << verb;
        EXPECT_TRUE(Has(Run({"--help"}).out, std::string("\n  ") + verb + " ")) << verb;
    }
}

TEST_F(ZemCli, HelpIsAVerbToo) {
    EXPECT_EQ(Run({"help"}).out, Run({"--help"}).out);
    EXPECT_EQ(Run({"help", "put"}).out, Run({"put", "--help"}).out);
    EXPECT_EQ(Run({"help", "config", "push"}).out, Run({"config", "push", "--help"}).out);
    EXPECT_EQ(Run({"help", "help"}).out, Run({"help", "--help"}).out);
    const Outcome json = Run({"help", "put", "--json"});
    EXPECT_TRUE(json.out.starts_with("{\"form\":\"help\",\"text\":\"")) << json.out;
    EXPECT_TRUE(m_server.Requests().empty()) << "nobody was asked";
}

TEST_F(ZemCli, HelpHasNoBlankLinesSideBySideAndNoHalvedDots) {
    const std::string help = Run({"--help"}).out;
    EXPECT_TRUE(Has(help, "NAME.a0 ...\n")) << help;
    for (const std::string& text :
         {help, Run({"put", "--help"}).out, Run({"config", "--help"}).out}) {
        EXPECT_FALSE(Has(text, "\n\n\n")) << text;
        EXPECT_TRUE(Has(text, "[options]\n\n")) << text;
    }
}

TEST_F(ZemCli, FailuresAreJsonToo) {
    const Outcome refused = Run({"stat", "media/none", "--json"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.out,
              "{\"error\":\"media/none: there is no such file\",\"exit_code\":1,\"hresult\":null,"
              "\"reason\":\"no_such_file\"}\n");
    EXPECT_EQ(refused.err, "zem: media/none: there is no such file\n");
    const CClosedPort nowhere;
    const Outcome away = RunOn(nowhere.Url(), {"--json", "status"});
    EXPECT_EQ(away.code, 3);
    EXPECT_TRUE(Has(away.out, "\"exit_code\":3")) << away.out;
    const Outcome usage = Run({"read", "media/v", "--json"});
    EXPECT_EQ(usage.code, 2);
    EXPECT_TRUE(Has(usage.out, "\"exit_code\":2")) << usage.out;
    const Outcome parser = Run({"info", "--json"});
    EXPECT_EQ(parser.code, 2);
    EXPECT_EQ(parser.out,
              "{\"error\":\"info needs NAME (File on the server); see zem info --help\","
              "\"exit_code\":2,\"hresult\":null,\"reason\":null}\n");
    const Outcome number = Run({"--json", "info", "media/none"});
    EXPECT_TRUE(Has(number.out, "\"hresult\":\"0x80004005\"")) << number.out;
}

TEST_F(ZemCli, TheServerMayComeFromTheEnvironment) {
    const auto shell = [&](const std::string& more) {
        m_server.Settle();
        return Shell("ZEM_SERVER=" + m_server.Url() + " " + Quoted(ZEM_PROGRAM) + more + " >out");
    };
    EXPECT_EQ(shell(" status"), 0);
    EXPECT_TRUE(Has(Contents(m_dir / "out"), m_server.Url()));
    m_server.Settle();
    const CClosedPort nowhere;
    EXPECT_EQ(shell(" --server " + nowhere.Url() + " status"), 3) << "the option goes first";
}

TEST_F(ZemCli, ColoursAreAskedForOrNotThere) {
    EXPECT_EQ(Run({"stat", "media/none"}).err.rfind("zem: ", 0), 0u) << "no terminal";
    EXPECT_EQ(Run({"--color", "always", "stat", "media/none"}).err.rfind("\x1b[31mzem:\x1b[0m ", 0),
              0u);
    EXPECT_EQ(Run({"--color", "never", "stat", "media/none"}).err.rfind("zem: ", 0), 0u);
    EXPECT_EQ(Run({"--color", "sometimes", "status"}).code, 2);
}

TEST_F(ZemCli, TextOfTheServerDoesNotReachTheTerminalRaw) {
    const std::string evil =
        "\x1b]0;pwned\x07 \xc2\x9b"
        "2J \xe2\x80\xae \xff";
    CScriptServer server([&](const ScriptRequest& request) {
        if (request.target == "/media/status") {
            return ScriptAnswer{
                "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nX-ServerName: " + evil + "\r\n\r\n0 1 2",
                false};
        }
        if (request.target == "/media/clients")
            return ScriptAnswer{PageReplyBytes(200, "OK", evil + "\r\n"), false};
        return ScriptAnswer{PageReplyBytes(500, evil, ""), false};
    });
    const std::vector<std::vector<std::string>> lines = {{"status"},
                                                         {"clients"},
                                                         {"clients", "--json"},
                                                         {"status", "--json"},
                                                         {"info", "x"},
                                                         {"info", "x", "--json"},
                                                         {"get", "media/x"},
                                                         {"top", "--count", "1"},
                                                         {"doctor"},
                                                         {"doctor", "--json"},
                                                         {"top", "--count", "1", "--json"},
                                                         {"stat", evil}};
    for (const auto& arguments : lines) {
        const Outcome outcome = RunOn(server.Url(), arguments);
        const std::string all = outcome.out + outcome.err;
        EXPECT_NE(all, "") << arguments[0];
        for (const char* raw : {"\x1b", "\x07", "\xc2\x9b", "\xe2\x80\xae", "\xff"})
            EXPECT_FALSE(Has(all, raw)) << arguments[0] << ": " << all;
    }
    EXPECT_TRUE(
        Has(RunOn(server.Url(), {"clients"}).out, "\\x1b]0;pwned\\x07 \\u009b2J \\u202e \\xff\n"));
}

TEST_F(ZemCli, AFullClientPageIsSaidToBeFull) {
    std::atomic<size_t> length{4420};  // the server has a thread of its own
    CScriptServer server([&](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", std::string(length - 2, 'x') + "\r\n"),
                            false};
    });
    EXPECT_TRUE(Has(RunOn(server.Url(), {"clients", "--json"}).out, "\"perhaps_more\":false"));
    ++length;
    EXPECT_TRUE(Has(RunOn(server.Url(), {"clients", "--json"}).out, "\"perhaps_more\":true"));
    EXPECT_TRUE(Has(RunOn(server.Url(), {"clients"}).err, "there may be more"));
}

TEST_F(ZemCli, WrongUsageIs2AndSendsNothing) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"nix"},
        {"put"},
        {"put", "a"},
        {"status", "x"},
        {"erase", "f", "--from", "0"},
        {"erase", "f", "--from", "0", "--count", "0"},
        {"frames", "f", "--rate", "9"},
        {"leave"},
        {"realtime"},
        {"config"},
        {"config", "set", "a"},
        {"config", "set", "a", "b"},
        {"--id", "", "leave"},
        {"info", "\xFF"},
        {"read", "f", "--json"},
        {"bench", "--frame-size", "15"},
        {"bench", "--frame-size", "241M"},
        {"bench", "--file", "media/x"},
        {"manual"}};
    for (const auto& arguments : wrong) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.code, 2) << (arguments.empty() ? "" : arguments[0]) << outcome.err;
        EXPECT_EQ(outcome.err.rfind("zem: ", 0), 0u);
    }
    for (const ScriptRequest& request : m_server.Requests())
        // The ill-formed name is found after the join.
        EXPECT_EQ(request.Header("Zem-Id").rfind("zem-", 0), 0u);
    EXPECT_LE(m_server.Requests().size(), 2u);
}

TEST_F(ZemCli, UnreachableServerIs3) {
    const CClosedPort nowhere;
    const Outcome away = RunOn(nowhere.Url(), {"status"});
    EXPECT_EQ(away.code, 3);
    EXPECT_EQ(away.err.rfind("zem: cannot reach " + nowhere.Url() + ": ", 0), 0u) << away.err;
    EXPECT_TRUE(Has(away.err, " (refused: no program listens there); zem doctor tells why\n"))
        << away.err;
    EXPECT_EQ(RunOn(nowhere.Url(), {"framemd5", "media/x"}).code, 3);
}

TEST_F(ZemCli, AnotherKindOfServerIs4) {
    CScriptServer other([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", "<html>welcome</html>"), false};
    });
    EXPECT_EQ(RunOn(other.Url(), {"status"}).code, 4);
    EXPECT_EQ(RunOn(other.Url(), {"info", "media/x"}).code, 4);
    CScriptServer none([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(404, "Not Found", ""), false};
    });
    for (const auto& [verb, asked] :
         {std::pair{"status", "/media/status"}, std::pair{"clients", "/media/clients"},
          std::pair{"df", "CMD_JOIN"}}) {
        const Outcome outcome = RunOn(none.Url(), {verb, "--json"});
        EXPECT_EQ(outcome.code, 4);
        EXPECT_EQ(outcome.err, std::string("zem: this does not look like a media server: ") +
                                   asked + ": HTTP 404 Not Found; zem doctor tells why\n");
        EXPECT_TRUE(Has(outcome.out, "\"reason\":\"not_a_media_server\"")) << outcome.out;
    }
    const auto whole = [&](const std::vector<std::string>& arguments, const std::string& done) {
        const Outcome outcome = RunOn(none.Url(), arguments);
        EXPECT_EQ(outcome.code, 4);
        EXPECT_EQ(outcome.err, "zem: this does not look like a media server: media/x was not " +
                                   done + ": HTTP 404 Not Found; zem doctor tells why\n");
    };
    whole({"get", "media/x"}, "sent");
    whole({"rm", "--http", "media/x"}, "deleted");
}

TEST_F(ZemCli, AServersAddressIsCheckedBeforeItIsUsed) {
    for (const char* port : {":99999", ":0", ":", ":80a", ":-1"}) {
        const std::string server = std::string("http://127.0.0.1") + port;
        const Outcome outcome = RunOn(server, {"status"});
        EXPECT_EQ(outcome.code, 2) << port;
        EXPECT_EQ(outcome.err, "zem: '" + server + "': the port is a number from 1 to 65535\n");
    }
    EXPECT_EQ(RunOn("HTTP" + m_server.Url().substr(4), {"status"}).code, 0);
    EXPECT_EQ(RunOn("https" + m_server.Url().substr(4), {"status"}).code, 2);
    const Outcome six = RunOn("http://[::1]", {"status"});
    EXPECT_FALSE(Has(six.err, "the port is")) << six.err;
}

TEST_F(ZemCli, StatusAndClients) {
    EXPECT_TRUE(Has(Run({"status"}).out, "1.0 TiB of 4.0 TiB (25 %)"));
    EXPECT_EQ(Run({"status", "--json"}).out,
              "{\"server\":\"studio7\",\"error\":0,\"free_bytes\":1099511627776,"
              "\"total_bytes\":4398046511104}\n");
    EXPECT_EQ(Run({"clients"}).out, "No clients\n");
    EXPECT_EQ(Run({"--id", "desk 1", "join"}).code, 0);
    EXPECT_EQ(Run({"--id", "desk 2", "join"}).code, 0);
    EXPECT_EQ(Run({"clients"}).out, "desk 1\ndesk 2\n");
    EXPECT_EQ(
        Run({"clients", "--json"}).out,
        "{\"server\":\"studio7\",\"clients\":[\"desk 1\",\"desk 2\"],\"perhaps_more\":false}\n");
    EXPECT_EQ(Run({"--id", "desk 1", "leave"}).code, 0);
    EXPECT_EQ(Run({"clients"}).out, "desk 2\n");
}

TEST_F(ZemCli, StatusOfAServerWithoutAVolumeIs1) {
    CScriptServer server([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", "80070003 0 0"), false};
    });
    const Outcome outcome = RunOn(server.Url(), {"status"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "0x80070003 (path not found)"));
    const Outcome json = RunOn(server.Url(), {"status", "--json"});
    EXPECT_EQ(json.code, 1);
    EXPECT_TRUE(Has(json.out, "\"error\":2147942403,")) << json.out;
    CScriptServer later([](const ScriptRequest&) {
        return ScriptAnswer{PageReplyBytes(200, "OK", "0 0 0"), false};
    });
    EXPECT_EQ(RunOn(later.Url(), {"status"}).code, 1) << "the error is told once, the zeros stay";
}

TEST_F(ZemCli, AServerThatFallsSilentIs3) {
    CScriptServer silent([](const ScriptRequest&) { return ScriptAnswer{}; });
    const Outcome outcome = RunOn(silent.Url(), {"--timeout", "1", "status"});
    EXPECT_EQ(outcome.code, 3) << outcome.err;
}

TEST_F(ZemCli, Framemd5OfAMissingFileIs1) {
    const Outcome outcome = Run({"framemd5", "media/none"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(Has(outcome.err, "could not open 'media/none'")) << outcome.err;
    EXPECT_TRUE(m_media.clients.empty());
}

}  // namespace
