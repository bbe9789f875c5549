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

/// Runs the program to its end, with a temp folder.
struct Asked {
    Asked(std::vector<std::string> arguments, const std::string& folder)
    {
        arguments.insert(arguments.begin(), MEMPAGER_TOOL);
        arguments.insert(arguments.end(), {"--temp", folder});
        Child tool(arguments);
        text = tool.Read(1 << 20);
        code = tool.End();
    }
    std::string text;
    int code;
};

CHILD_ROLE(OwnsATempFile)
{
    Configure(0, argument);
    MEM_PagerInfo piece;
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(8 << 20, &piece, 0) == 0);
    std::cout << "r" << std::flush;
    std::cin.get();
    return 0;
}

struct Program : testing::Test {
    std::set<fs::path> Files() const
    {
        return {fs::directory_iterator(folder.path), fs::directory_iterator()};
    }
    /// What `ls` tells of a process's file: its state, how large it is, and which program it is of.
    Json Told(const Child& owner) const
    {
        const Json told = Json::parse(Asked({"ls", "--json"}, folder.path).text);
        for (const Json& entry : told["entries"])
            if (entry["process"] == owner.Id() && entry["kind"] == "temp file")
                return {entry["state"], entry["bytes"],
                        entry["program"].get<std::string>().substr(0, 12)};
        return {};
    }
    const TempFolder folder;
};

TEST_F(Program, TellsAndRemovesWhatTheDeadHaveLeftAndNothingElse)
{
    Child living("OwnsATempFile", folder.path), killed("OwnsATempFile", folder.path);
    ASSERT_EQ(living.Read(1) + killed.Read(1), "rr");
    killed.Kill();
    EXPECT_EQ(killed.End(), Child::killed);
    const std::string full = "TempFileNorvaneMemoryBlock_1_1_0";
    for (const std::string& strange : {full + ".bak", "My" + full, full + "_1"})
        std::ofstream(folder.path + "/" + strange) << "x";
    std::set<fs::path> files = Files();

    EXPECT_EQ(Told(living), Json({"alive", 64 << 20, "system_tests"}));
    EXPECT_EQ(Told(killed), Json({"dead", 64 << 20, ""}));
    EXPECT_EQ(Asked({"clean", "--dry-run"}, folder.path).code, 0);
    EXPECT_EQ(Files(), files) << "a look has changed something";

    const Asked cleaned({"clean", "--json"}, folder.path);
    EXPECT_EQ(cleaned.code, 0);
    EXPECT_GE(Json::parse(cleaned.text)["removed"]["bytes"], 64 << 20);
    EXPECT_EQ(std::erase_if(files,
                            [&killed](const fs::path& path) {
                                return path.string().find("_" + std::to_string(killed.Id()) +
                                                          "_") != std::string::npos;
                            }),
              1u);
    EXPECT_EQ(Files(), files);
    EXPECT_EQ(Asked({"clean"}, folder.path).text.find("Nothing is left over."), 0u);
    living.EndInput();
    EXPECT_EQ(living.End(), 0);
    EXPECT_EQ(Files().size(), 3u);
}

TEST_F(Program, EndsWithACodeThatScriptsCanTrust)
{
    const std::string missing = folder.path + "/missing";
    EXPECT_EQ(Asked({"ls"}, folder.path).code, 0);
    for (const char* const wrong : {"nope", "--temp", "--dry-run"})
        EXPECT_EQ(Asked({"ls", wrong}, folder.path).code, 2) << wrong;
    EXPECT_EQ(Asked({}, folder.path).code, 2);
    EXPECT_EQ(Asked({"clean"}, missing).code, 3);

    const Asked well({"doctor"}, folder.path), ill({"doctor"}, missing);
    const std::string name = fs::path(folder.path).filename().string();
    EXPECT_NE(well.text.find(name + " ("), std::string::npos) << well.text;
    EXPECT_NE(ill.text.find("no file can be made in "), std::string::npos) << ill.text;
    EXPECT_EQ(ill.code, 1);
}
} // namespace
