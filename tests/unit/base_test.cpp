// Strings, tokens and numbers that outlive their bytes or are read past them, log lines lost, torn
// or blamed on the wrong place, sinks that fell the library, counters that sum up wrong.

#include "NRVlog/Zor_Log.h"
#include "Rw/RWBoundsErr.h"
#include "Rw/RWTokenizer.h"
#include "Zor/Zor_Buffer.h"
#include "Zor/Zor_PerformanceCounters.h"
#include "support/FailingNew.h"
#include "support/Seeds.h"
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <thread>

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
    ForEachSeed(20, 1000, [](unsigned seed) {
        std::vector<RWCString> real(5);
        std::vector<std::string> model(5);
        for (unsigned step = 0; step < 1000; ++step) {
            const std::mt19937 random(seed * 1000 + step);
            Step(random, real), Step(random, model);
            const std::size_t at = step % 5, next = (step + 1) % 5;
            ASSERT_EQ(std::string(real[at].data(), real[at].length() + 1), model[at] + '\0')
                << step;
            ASSERT_EQ(real[at].last('a'), model[at].rfind('a'));
            ASSERT_EQ(real[at] <=> real[next], model[at] <=> model[next]);
            if (real[at] == real[next]) {
                ASSERT_EQ(real[at].hash(), real[next].hash());
            }
        }
    });
}

using Sizes = std::initializer_list<std::size_t>;
TEST(Base, StretchesLieWithinTheirString)
{
    const RWCString real("a_b");
    for (std::size_t at = 0; at < 6; ++at)
        for (const std::size_t length : Sizes{0, 1, 2, 3, 4, 0 - at, SIZE_MAX})
            if (at > 3 || length > 3 - at)
                EXPECT_THROW(real(at, length), RWBoundsErr) << at << " " << length;
            else
                EXPECT_EQ(RWCString(real(at, length)), std::string("a_b", at, length).data());
}

TEST(Base, TokensAreThoseOfTheCLibrary)
{
    ForEachSeed(3000, 1, [](unsigned seed) {
        std::mt19937 random(seed);
        std::string text(random() % 12, 'a');
        for (char& byte : text)
            byte = "ab_/"[random() % 4];
        RWCTokenizer next(text.data());
        char* rest = text.data();
        for (int calls = 0; calls < 8; ++calls) {
            const char* const apart = std::array{"_", "/_", "b", ""}[random() % 4];
            ASSERT_EQ(RWCString(next(apart)), std::strtok(std::exchange(rest, nullptr), apart));
        }
    });
}

TEST(Base, NumbersOutOfAShortBufferAreZeroFromThereOn)
{
    Zor_oBuffer out;
    (out << -2 << 0x89abcdefu).Write64bitHandle(&out) << 7;
    const std::string all = out.Bytes();
    ASSERT_EQ(all.substr(0, 8), "\xfe\xff\xff\xff\xef\xcd\xab\x89");
    for (std::size_t size = 0; size <= all.size(); ++size) {
        Zor_iBuffer in(all.data(), size);
        int first = 1, last = 1;
        unsigned second = 1;
        void* handle = &in;
        (in >> first >> second).Read64bitHandle(handle) >> last;
        EXPECT_EQ(first, size >= 4 ? -2 : 0) << size;
        EXPECT_EQ(second, size >= 8 ? 0x89abcdef : 0) << size;
        EXPECT_EQ(handle, size >= 16 ? &out : nullptr) << size;
        EXPECT_EQ(last, size == 20 ? 7 : 0) << size;
        EXPECT_EQ(in.good(), size == 20) << size;
    }
}

TEST(Base, CountersKnowTheLeastAndTheGreatestInterval)
{
    auto* const counter = Zor_PerformanceCounters::Instance()->AddCounter(
        ZOR_COUNT_INTERVALS, "", "", "", "", 7, 0, 0, nullptr);
    counter->EndMark(0, 0); // before any mark
    EXPECT_EQ(counter->Read().closes, 0u);
    EXPECT_EQ(counter->Read().least, 0);
    for (const int milliseconds : {0, 20, 0}) {
        counter->Mark();
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        counter->End(0, 0, nullptr);
    }
    const auto after = counter->Read();
    EXPECT_EQ(std::pair(after.marks, after.closes), std::pair(3ull, 3ull));
    EXPECT_GE(after.greatest, 0.02);
    EXPECT_LE(after.least, after.total - after.greatest + 1e-9); // the other two
}

TEST(Base, ALevelForAllEndsThoseOfSingleCodes)
{
    for (int code = 1; code <= 16; ++code)
        ZorGLog.SetLogLevel(code, 7);
    ZorGLog.SetLogLevel(5);
    ZorGLog.SetLogLevel(17, 6);
    for (int code = 1; code <= 17; ++code)
        EXPECT_EQ(ZorGLog.GetLogLevel(code), code == 17 ? 6 : 5) << code;
    ZorGLog.SetLogLevel(3);
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
    ZOR_LOG("Long", 3, "%s%%%Iu", text.c_str(), std::size_t{7});
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
    EXPECT_EQ(Logging("to the first"), 5);
    EXPECT_EQ(Logging("to the second"), 5);
    ZorGLog.SetSink(nullptr);
    EXPECT_EQ(*owned, 5) << "the second line came to the first sink";
    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mempager 3 F: " + text.substr(3977) + "\nmempager 2 Inner: inside\n");
}

} // namespace
