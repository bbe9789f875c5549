// Strings that outlive their bytes, log lines lost, torn or blamed on the wrong place, sinks that
// fell the library.

#include "NRVlog/Zor_Log.h"
#include "Rw/RWCString.h"
#include "support/FailingNew.h"
#include <gtest/gtest.h>
#include <memory>
#include <random>

namespace
{
/// One change, the same to the strings and to their models.
template <class String>
void Step(std::mt19937 random, std::vector<String>& all)
{
    String &a = all[random() % all.size()], &b = all[random() % all.size()];
    a = random() % 3 == 0 ? String(std::move(b)) : String(a.data(), a.length() / 2) + b;
    if (random() % 2 == 0)
        b = a.data() + a.length() / 2;
    b += random() % 4 == 0 ? String("\0\xff_a", 4) : String();
}

TEST(Base, StringsLiveLikeTheirModels)
{
    std::vector<RWCString> real(5);
    std::vector<std::string> model(5);
    for (unsigned step = 0; step < 20000; ++step) {
        Step(std::mt19937(step), real), Step(std::mt19937(step), model);
        const std::size_t at = step % 5, next = (step + 1) % 5;
        ASSERT_EQ(std::string(real[at].data(), real[at].length() + 1), model[at] + '\0') << step;
        ASSERT_EQ(real[at].last('a'), model[at].rfind('a'));
        ASSERT_EQ(real[at] <=> real[next], model[at] <=> model[next]);
        ASSERT_TRUE(real[at] != real[next] || real[at].hash() == real[next].hash());
    }
}

int Logging(const char* text)
{
    ZOR_LOG("Inner", 2, "%s", text);
    return 5;
}

TEST(Base, LinesComeWholeWhateverTheSinkDoes)
{
    std::string lines, text(5000, 'x');
    ZorGLog.SetSink([&lines](const Zor_LogRecord& record) {
        lines.append(record.function).append("|").append(record.text), errno = ERANGE;
    });
    errno = EDOM;
    ZOR_LOG("Outer", 3, "%1.fMB %Iu 100%%Iu %d\n", 2.0, ~0ull, Logging("first\n"));
    ZOR_LOG("Long", 3, "%s%%%Iu", text.c_str(), 7ul);
    ZOR_LOG("Quiet", 4, "%d", Logging("never"));
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(lines, "Inner|first\nOuter|2MB 18446744073709551615 100%Iu 5\nLong|" + text + "%7");
    testing::internal::CaptureStderr();
    ZorGLog.SetSink(nullptr);
    if (const FailingNew failing(1, 9); true)
        ZOR_LOG("F", 3, "%s", text.c_str());
    const auto owned = std::make_shared<int>(0);
    ZorGLog.SetSink([owned](const Zor_LogRecord&) {
        ZorGLog.SetSink([](const Zor_LogRecord&) { throw 1; });
        *owned += Logging("inside\n");
    });
    EXPECT_EQ(Logging("to the first") + Logging("to the second"), 10);
    ZorGLog.SetSink(nullptr);
    EXPECT_EQ(owned.use_count(), *owned - 4);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mempager 3 F: " + text.substr(3977) + "\nmempager 2 Inner: inside\n");
}

} // namespace
