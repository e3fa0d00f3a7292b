// Documents of 200,000 elements: what reading and writing one costs, and what it weighs, against tinyxml2 in the same
// run. One of them is mostly attributes, the other mostly texts.

#include "Harness.h"

#include "kvx/xml/XmlDocument.h"

#include <cstdio>
#include <malloc.h>
#include <memory>
#include <tinyxml2.h>

using namespace bench;

namespace
{
constexpr char const * STATES[] = {"active", "waiting", "stopped", "failed"};

std::string MakeAttributes(int elements)
{
    std::string text = "<?xml version=\"1.0\"?><inventory>";
    char line[256];
    for (int i = 0; i < elements; ++i)
    {
        std::snprintf(
            line, sizeof(line),
            "%s<item id=\"%d\" name=\"article %x\" state=\"%s\" size=\"%d\" changed=\"2024-%02d-%02dT12:%02d\"/>",
            i % 100 == 0 ? "<group>" : "", i, i * 7919, STATES[i % 4], i * 31 % 5000, i % 12 + 1, i % 28 + 1, i % 60);
        text += line;
        text += i % 100 == 99 ? "</group>" : "";
    }
    return text + "</inventory>";
}

std::string MakeTexts(int elements)
{
    std::string text = "<messages>";
    char line[256];
    for (int i = 0; i < elements; ++i)
    {
        std::snprintf(line, sizeof(line),
                      "<entry lang=\"en\"><title>Entry %d</title><body>It took %d ms &amp; %d kB</body></entry>", i,
                      i * 31 % 5000, i * 7919 % 10000);
        text += line;
    }
    return text + "</messages>";
}

double HeapInUse()
{
    struct mallinfo2 const info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

/// What making it adds to the heap.
template <class MAKE>
double Weigh(MAKE make)
{
    double const before = HeapInUse();
    auto const document = make();
    return HeapInUse() - before;
}

std::unique_ptr<CXmlDocument> ReadOurs(CStringA const & text)
{
    auto document = std::make_unique<CXmlDocument>();
    document->FromString(text);
    return document;
}

std::unique_ptr<tinyxml2::XMLDocument> ReadTheirs(CStringA const & text)
{
    auto document = std::make_unique<tinyxml2::XMLDocument>();
    if (document->Parse(text.GetString(), static_cast<std::size_t>(text.GetLength())) != tinyxml2::XML_SUCCESS)
    {
        Fail("tinyxml2 doesn't read the document");
    }
    return document;
}

void Measure(std::string const & name, std::string const & bytes, int rounds)
{
    CStringA const text(bytes.c_str());
    double const megabytes = static_cast<double>(bytes.size()) / 1e6;
    auto const ours = ReadOurs(text);
    auto const theirs = ReadTheirs(text);
    if (ours->ToString() != text)
    {
        Fail("a document isn't written as it was read");
    }
    double nReadTime = 0;
    double nWriteTime = 0;
    auto const read = [&]
    {
        auto const start = Clock::now();
        auto const document = ReadOurs(text);
        return nReadTime = Since(start);
    };
    auto const write = [&]
    {
        auto const start = Clock::now();
        CStringA const written = ours->ToString();
        return nWriteTime = Since(start);
    };
    auto const readTheirs = [&]
    {
        auto const start = Clock::now();
        auto const document = ReadTheirs(text);
        return Since(start);
    };
    auto const free = [&](auto document)
    {
        auto const start = Clock::now();
        document.reset();
        return Since(start);
    };
    auto const writeTheirs = [&]
    {
        auto const start = Clock::now();
        tinyxml2::XMLPrinter printer(nullptr, true);
        theirs->Print(&printer);
        return Since(start);
    };
    Compare({"read " + name, 0, 0, Target::AtMost, 1}, rounds, read, readTheirs);
    Compare(
        {"free " + name, 0, 0, Target::AtMost, 0}, rounds, [&] { return free(ReadOurs(text)); },
        [&] { return free(ReadTheirs(text)); });
    Compare({"write " + name, 0, 0, Target::AtMost, 1}, rounds, write, writeTheirs);
    PrintValue("  read", megabytes / nReadTime * 1e9, 0, "MB/s");
    PrintValue("  written", megabytes / nWriteTime * 1e9, 0, "MB/s");
    PrintValue("  heap for a MB of text", Weigh([&] { return ReadOurs(text); }) / 1e6 / megabytes,
               Weigh([&] { return ReadTheirs(text); }) / 1e6 / megabytes, "MB");
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const elements = options.IsBrief() ? 2000 : 200000;
    int const rounds = options.IsBrief() ? 2 : 15;
    if (options.Wants("attributes"))
    {
        Measure("attributes", MakeAttributes(elements), rounds);
    }
    if (options.Wants("texts"))
    {
        Measure("texts", MakeTexts(elements), rounds);
    }
    return 0;
}
