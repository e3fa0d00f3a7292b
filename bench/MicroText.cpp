/// Texts and maps from texts, against the standard library's.

#include "MicroReport.h"

#include "kvx/platform/mfc/Afx.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>

namespace
{
/// What both kinds of text have under different names.
struct Ours
{
    using Text = CString;
    static constexpr char const * NAME = "/ours";
    static Text Make(std::u16string_view text) { return CString(text); }
    static void Append(Text & to, Text const & text) { to += text; }
    static int Compare(Text const & a, Text const & b) { return a.Compare(b); }
};

struct Standard
{
    using Text = std::u16string;
    static constexpr char const * NAME = "/limit";
    static Text Make(std::u16string_view text) { return Text(text); }
    static void Append(Text & to, Text const & text) { to += text; }
    static int Compare(Text const & a, Text const & b) { return a.compare(b); }
};

std::u16string Sample(std::size_t length)
{
    std::u16string text(length, u'a');
    for (std::size_t i = 0; i < length; ++i)
    {
        text[i] = static_cast<char16_t>(u'a' + i % 26);
    }
    return text;
}

template <class KIND>
void Copy(benchmark::State & state, std::size_t length)
{
    auto const text = KIND::Make(Sample(length));
    for (auto _ : state)
    {
        auto copy = text;
        benchmark::DoNotOptimize(copy);
    }
}

/// A text of that length out of pieces of four characters.
template <class KIND>
void Append(benchmark::State & state, std::size_t length)
{
    auto const piece = KIND::Make(Sample(4));
    for (auto _ : state)
    {
        typename KIND::Text text;
        for (std::size_t i = 0; i < length; i += 4)
        {
            KIND::Append(text, piece);
        }
        benchmark::DoNotOptimize(text);
    }
}

/// One piece behind a copy.
template <class KIND>
void AppendToCopy(benchmark::State & state, std::size_t length)
{
    auto const start = KIND::Make(Sample(length));
    auto const piece = KIND::Make(Sample(4));
    for (auto _ : state)
    {
        auto text = start;
        KIND::Append(text, piece);
        benchmark::DoNotOptimize(text);
    }
}

template <class KIND>
void Equal(benchmark::State & state, std::size_t length)
{
    auto a = KIND::Make(Sample(length));
    auto b = KIND::Make(Sample(length));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        bool bEqual = a == b;
        benchmark::DoNotOptimize(bEqual);
    }
}

/// The order of two texts that differ in the last character.
template <class KIND>
void Order(benchmark::State & state, std::size_t length)
{
    std::u16string other = Sample(length);
    other.back() = u'~';
    auto a = KIND::Make(Sample(length));
    auto b = KIND::Make(other);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        int order = KIND::Compare(a, b);
        benchmark::DoNotOptimize(order);
    }
}

constexpr std::size_t KEY_LENGTH = 20;

std::u16string Key(std::size_t number)
{
    std::u16string key = Sample(KEY_LENGTH);
    for (std::size_t i = key.size(); number > 0; number /= 10)
    {
        key[--i] = static_cast<char16_t>(u'0' + number % 10);
    }
    return key;
}

/// Keys that are there, in no order, each in memory of its own.
template <class TEXT, class MAKE>
std::vector<TEXT> LookUpKeys(std::size_t count, MAKE make)
{
    std::vector<std::size_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0);
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
    std::vector<TEXT> keys;
    std::ranges::transform(numbers, std::back_inserter(keys), [&](std::size_t number) { return make(Key(number)); });
    return keys;
}

void OurLookUp(benchmark::State & state, std::size_t count)
{
    CMapStringToPtr map;
    for (std::size_t i = 0; i < count; ++i)
    {
        map.SetAt(Ours::Make(Key(i)), &map);
    }
    auto const keys = LookUpKeys<CString>(count, &Ours::Make);
    for (std::size_t i = 0; auto _ : state)
    {
        void * value = nullptr;
        BOOL bFound = map.Lookup(keys[i], value);
        benchmark::DoNotOptimize(bFound);
        benchmark::DoNotOptimize(value);
        i = i + 1 == count ? 0 : i + 1;
    }
}

void StandardLookUp(benchmark::State & state, std::size_t count)
{
    std::unordered_map<std::u16string, void *> map;
    for (std::size_t i = 0; i < count; ++i)
    {
        map.emplace(Key(i), &map);
    }
    auto const keys = LookUpKeys<std::u16string>(count, &Standard::Make);
    for (std::size_t i = 0; auto _ : state)
    {
        auto const found = map.find(keys[i]);
        void * value = found == map.end() ? nullptr : found->second;
        benchmark::DoNotOptimize(value);
        i = i + 1 == count ? 0 : i + 1;
    }
}

template <class KIND>
void RegisterText(std::string const & threads)
{
    using Function = void (*)(benchmark::State &, std::size_t);
    for (auto const & [name, function] : {std::pair<char const *, Function>{"copy", &Copy<KIND>},
                                          {"append by fours", &Append<KIND>},
                                          {"append to a copy", &AppendToCopy<KIND>},
                                          {"compare equal", &Equal<KIND>},
                                          {"compare order", &Order<KIND>}})
    {
        for (std::size_t const length : {8, 20, 200})
        {
            auto const full = std::string("text ") + name + ", " + std::to_string(length) + threads + KIND::NAME;
            benchmark::RegisterBenchmark(full.c_str(), function, length);
        }
    }
}

void RegisterAll(std::string const & threads)
{
    RegisterText<Ours>(threads);
    RegisterText<Standard>(threads);
    for (std::size_t const count : {10, 1000, 100000})
    {
        auto const name = "look-up, " + std::to_string(count) + " keys" + threads;
        benchmark::RegisterBenchmark((name + Ours::NAME).c_str(), &OurLookUp, count);
        benchmark::RegisterBenchmark((name + Standard::NAME).c_str(), &StandardLookUp, count);
    }
}
} // namespace

int main(int argc, char ** argv)
{
    bench::PinTo(0);
    RegisterAll("");
    bench::RunPairs(argc, argv, 1.0);

    // From the first thread on, counts are changed by locked operations.
    std::jthread const second(
        [](std::stop_token stop)
        {
            while (!stop.stop_requested())
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        });
    RegisterAll(", 2 threads");
    bench::RunPairs(argc, argv, 1.0);
    return 0;
}
