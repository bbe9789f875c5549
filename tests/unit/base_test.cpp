// Strings that outlive their bytes, log lines lost, torn or blamed on the wrong place, sinks that
// fell the library, broken numbers, a mutex left locked by a fork, counters made twice.

#include "Fibrex/WindowUnixMutex.h"
#include "NRVlog/Zor_Log.h"
#include "Rw/RWBoundsErr.h"
#include "Rw/RWTokenizer.h"
#include "Zor/Zor_Buffer.h"
#include "Zor/Zor_PerformanceCounters.h"
#include "support/Children.h"
#include "support/FailingNew.h"
#include <future>
#include <gtest/gtest.h>
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

TEST(Base, StretchesKeepToTheirBoundsAndTokensAreThoseOfStrtok)
{
    RWCString text("0123456789");
    for (const auto& [at, size] : {std::pair{-1, -1}, {0, -1}, {11, 0}, {10, 1}, {3, -3}})
        EXPECT_THROW(text(std::size_t(at), std::size_t(size)), RWBoundsErr) << at << ' ' << size;
    EXPECT_THROW((FailingNew(1, 9), text += text), std::bad_alloc);
    EXPECT_TRUE((text = text(3, 4)) == "3456");
    for (unsigned round = 0; round < 30000; ++round) {
        std::string digits = std::to_string(round * 7919);
        RWCTokenizer tokens(RWCString(digits.c_str()));
        char* rest = digits.data();
        for (const char* apart : {"1", "1", "234", "1", "56"}) {
            const char* const token = strtok_r(rest, apart, &rest);
            ASSERT_STREQ(RWCString(tokens(apart)).data(), token != nullptr ? token : "");
        }
    }
}

int Logging(const char* text)
{
    ZOR_LOG("Inner", 2, "%s", text);
    return 5;
}

TEST(Base, LinesComeWholeWhateverTheSinkDoes)
{
    static_assert(std::string_view(zor_log::SourceName("/inc/xsrc/a.b.c").text) == "inc/xsrc/a.b");
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
    for (int code = 0; code < 20; ++code) // more than can have their own
        ZorGLog.SetLogLevel(code + 5609999, code - 1);
    EXPECT_EQ(Logging("unwanted") + ZorGLog.GetLogLevel(5610014) + ZorGLog.GetLogLevel(5610015),
              22);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mempager 3 F: " + text.substr(3977) + "\nmempager 2 Inner: inside\n");
    ZorGLog.SetLogLevel(3);
    EXPECT_EQ(ZorGLog.GetLogLevel(5609999), 3);
}

TEST(Base, BuffersCutAnywhereReadZeros)
{
    const std::string bytes = "\xfe\xff\xff\xff\x84\x83\x82\x81\x88\x87\x86\x85\x84\x83\x82\x81";
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        int first = 1;
        unsigned int second = 1;
        void* handle = &first;
        Zor_iBuffer in(bytes.data(), size);
        EXPECT_EQ((in >> first >> second).Read64bitHandle(handle).fail(), size < 16);
        Zor_oBuffer out;
        (out << first << second).Write64bitHandle(handle);
        std::string whole = bytes.substr(0, size >= 8 && size < 16 ? 8 : size / 4 * 4);
        whole.resize(bytes.size());
        EXPECT_EQ(out.Bytes(), whole) << size;
    }
}

constinit WindowUnixMutex mutex;
bool Steal() FIBREX_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.ReleaseMutex(); // not this thread's: nothing happens
    return mutex.TryCatchMutex() && (mutex.ReleaseMutex(), true);
}

TEST(Base, MutexIsRecursiveAndSurvivesAFork)
{
    []() FIBREX_NO_THREAD_SAFETY_ANALYSIS { mutex.CatchMutex(), mutex.CatchMutex(); }();
    const auto wrongly_released = []() FIBREX_NO_THREAD_SAFETY_ANALYSIS {
        mutex.ReleaseMutex();
        const bool early = !mutex.HeldByThisThread() || std::async(std::launch::async, Steal).get();
        mutex.ReleaseMutex();
        return early || mutex.HeldByThisThread() || !std::async(std::launch::async, Steal).get();
    };
    EXPECT_EQ(InChild(wrongly_released), 0);
    EXPECT_FALSE(wrongly_released());
}

Zor_PerformanceCounterData* Counter(const RWCString& name)
{
    auto* const all = Zor_PerformanceCounters::Instance();
    return all->GetOrAddCounter({}, "", name, {}, {}, -1, 5, 7, nullptr);
}

TEST(Base, ThreadsMeetInAllOfIt)
{
    std::atomic<int> taken{0};
    int held = 0, whole = 0;
    for (std::vector<std::jthread> threads; threads.size() < 4;)
        threads.emplace_back([&] {
            for (int turn = 0; turn < 1000; ++turn) {
                ZorGLog.SetSink([&, one = std::make_shared<int>(1)](auto&) { taken += *one; });
                Logging("");
                auto* const counter = Counter(("#" + std::to_string(turn)).c_str());
                counter->Mark(), counter->End(-999, -1.0, nullptr), counter->EndMark(-999, -1.0);
                const WindowUnixGuard guard(&mutex);
                ++held;
            }
        });
    ZorGLog.SetSink(nullptr);
    static const RWCString name("made in the midst of making it");
    const auto handler = std::set_new_handler([] { Counter(name)->Mark(); });
    EXPECT_EQ((FailingNew(1), Counter(name)->Read().marks), 1u);
    std::set_new_handler(handler);
    for (const auto& seen : Zor_PerformanceCounters::Instance()->ReadAll())
        whole += seen.name.data()[0] == '#' && seen.closes == 8 && seen.least <= seen.greatest;
    EXPECT_EQ(std::tuple(taken.load(), held, whole), std::tuple(4000, 4000, 1000));
}
} // namespace
