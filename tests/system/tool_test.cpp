// The program `mempager` beside a living and a killed process. Hunts the removal of what lives or
// was never the library's, a look that changes something, and success that is none.

#include "Mem/Mem_MemPager.h"
#include "support/Child.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <iostream>
#include <set>

namespace
{
namespace fs = std::filesystem;
using Json = nlohmann::json;

CHILD_ROLE(OwnsATempFile)
{
    Configure(0, argument);
    MEM_PagerInfo piece;
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(8 << 20, &piece, 0) == 0);
    std::cout << "r" << std::flush;
    return std::cin.get() == 'e' ? 0 : 2;
}

struct Program : testing::Test {
    /// What it answers, after its code.
    std::string Ask(std::vector<std::string> arguments, const std::string& below = "") const
    {
        arguments.insert(arguments.begin(), MEMPAGER_TOOL);
        arguments.insert(arguments.end(), {"--temp", folder.path + below});
        Child tool(arguments);
        const std::string text = tool.Read(1 << 20);
        return std::to_string(tool.End()) + text;
    }
    std::string Told(const Child& owner) const
    {
        const Json told = Json::parse(Ask({"ls", "--json"}).substr(1));
        for (const Json& entry : told["entries"])
            if (entry["process"] == owner.Id() && entry["kind"] == "temp file")
                return Json({entry["state"], entry["bytes"], entry["program"]}).dump();
        return "";
    }
    std::set<fs::path> Files() const
    {
        return {fs::directory_iterator(folder.path), fs::directory_iterator()};
    }
    const TempFolder folder;
};

TEST_F(Program, TellsAndRemovesWhatTheDeadHaveLeftAndNothingElse)
{
    for (const char* const strange : {"My%s", "%s_1", "%s.bak"}) {
        char name[99];
        std::snprintf(name, sizeof name, strange, "TempFileNorvaneMemoryBlock_1_1_0");
        std::ofstream(folder.path + "/" + name) << "x";
    }
    Child living("OwnsATempFile", folder.path);
    EXPECT_EQ(living.Read(1), "r");
    const std::set<fs::path> stay = Files();
    Child killed("OwnsATempFile", folder.path);
    EXPECT_EQ(killed.Read(1), "r");
    killed.Kill();
    EXPECT_EQ(killed.End(), Child::killed);

    EXPECT_EQ(Told(living).find("[\"alive\",67108864,\"system_tests"), 0u);
    EXPECT_EQ(Told(killed), "[\"dead\",67108864,\"\"]");
    EXPECT_EQ(Ask({"clean", "--dry-run"})[0], '0');
    EXPECT_EQ(Files().size(), stay.size() + 1) << "a look has changed something";
    EXPECT_EQ(Ask({"clean"}).find("0removed"), 0u);
    EXPECT_EQ(Files(), stay);
    EXPECT_EQ(Ask({"clean"}).find("0Nothing is left over."), 0u);
    living.Write("e");
    EXPECT_EQ(living.End(), 0);
    EXPECT_EQ(Files().size(), 3u);
}

TEST_F(Program, EndsWithACodeThatScriptsCanTrust)
{
    EXPECT_EQ(Ask({"ls"})[0], '0');
    EXPECT_EQ(Ask({}), "2");
    for (const char* const wrong : {"nope", "--temp", "--dry-run"})
        EXPECT_EQ(Ask({"ls", wrong}), "2") << wrong;
    EXPECT_EQ(Ask({"clean"}, "/missing")[0], '3');
    EXPECT_NE(Ask({"doctor"}).find(folder.path.substr(folder.path.rfind('/') + 1) + " ("),
              std::string::npos);
    const std::string ill = Ask({"doctor"}, "/missing");
    EXPECT_EQ(ill[0], '1');
    EXPECT_NE(ill.find("no file can be made in "), std::string::npos) << ill;
}
} // namespace
