#include "tests/support/registry_test.h"
#include "tests/tools/run_tool.h"

#include <cstdlib>

namespace {

class Settings : public RegistryTest {};

TEST_F(Settings, AreListedChangedAndRemoved) {
    const std::string longText(3000, 'l');
    EXPECT_EQ(kalSucceeds({"settings", "list"}), "");
    EXPECT_EQ(kalSucceeds({"settings", "set", "Maker\\App", "Colour", "blue"}), "");
    kalSucceeds({"settings", "set", "maker\\app", "Long", longText});
    kalSucceeds({"settings", "set", "Maker\\App", "A?C", "pattern"});
    kalSucceeds({"settings", "set", "Maker\\App", "odd\nname", "a\tb\\\xe4\""});
    EXPECT_EQ(kalSucceeds({"settings", "get", "Maker\\App", "COLOUR"}), "blue\n");
    EXPECT_EQ(kalSucceeds({"settings", "get", "Maker\\App", "abc"}), "pattern\n");
    EXPECT_EQ(kalSucceeds({"settings", "list", "MAKER\\APP"}),
              "Colour = blue\nLong = " + longText + "\nodd\\x0Aname = a\\x09b\\\\\xe4\"\nA?C = pattern\n");
    EXPECT_EQ(kalSucceeds({"settings", "tree"}),
              "Maker\n  App\n    Colour = blue\n    Long = " + longText +
                  "\n    odd\\x0Aname = a\\x09b\\\\\xe4\"\n    Wildcards\n      A?C = pattern\n");
    kalSucceeds({"settings", "unset", "Maker\\App", "long"});
    kalSucceeds({"settings", "unset", "Maker\\App", "colour"});
    EXPECT_EQ(kalSucceeds({"settings", "list", "--json", "Maker\\App"}),
              "[\n  {\"tag\": \"odd\\u000aname\", \"value\": \"a\\u0009b\\\\\\u00e4\\\"\"},\n"
              "  {\"tag\": \"A?C\", \"value\": \"pattern\"}\n]\n");
    kalSucceeds({"settings", "unset", "Maker\\App", "a?c"});
    expectFailure(kal({"settings", "get", "Maker\\App", "abc"}), 1, "there is no tag abc");
}

TEST_F(Settings, AParentThatASetNamesIsNotTakenForTheSet) {
    kalSucceeds({"settings", "set", "Common", "Font", "serif"});
    kalSucceeds({"settings", "set", "App", "Parent", "Common"});
    kalSucceeds({"settings", "set", "Common", "Parent", "App"});
    EXPECT_EQ(kalSucceeds({"settings", "list", "App"}), "Parent = Common\n");
    expectFailure(kal({"settings", "get", "App", "Font"}), 1, "no tag");
}

TEST_F(Settings, FailuresAreOneLineAndChangeNothing) {
    kalSucceeds({"settings", "set", "App", "p?ttern", "x"});
    const struct {
        Arguments arguments;
        int status;
        const char* why;
    } cases[] = {{{"settings"}, 2, ""},
                 {{"settings", "get", "App"}, 2, "TAG"},
                 {{"settings", "list", "None"}, 1, "there is no such set"},
                 {{"settings", "list", "App\\\\x"}, 1, "there is no such set"},
                 {{"settings", "get", "None\\Such", "t"}, 1, "there is no such set"},
                 {{"settings", "get", "App", "t"}, 1, "there is no tag t"},
                 {{"settings", "unset", "App", "pattern"}, 1, "there is no tag pattern"},
                 {{"settings", "unset", "Missing", "t"}, 1, "there is no such set"},
                 {{"settings", "set", "App", "t", ""}, 1, "unset"},
                 {{"settings", "set", "App", std::string(256, 't'), "v"}, 1, "no tag can be named"},
                 {{"settings", "set", std::string(300, 'p'), "t", "v"}, 1, "cannot be opened"}};
    for (const auto& [arguments, status, why] : cases) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        expectFailure(kal(arguments), status, why);
    }
    EXPECT_EQ(kalSucceeds({"settings", "tree"}), "App\n  Wildcards\n    p?ttern = x\n");
    writeFile(path("plain"), {});
    setenv("KAL_REGISTRY", path("plain/registry").c_str(), 1);
    expectFailure(kal({"settings", "set", "App", "t", "v"}), 1,
                  "settings App: the settings cannot be opened");
}

} // namespace
