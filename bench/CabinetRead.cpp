/// Reading cabinets: extraction to memory against 7z, cabextract and bsdtar, which decompress the same cabinet and
/// write nothing either, and listing of a cabinet of 60,000 files. --corpus=FILE tells what is in the cabinets; without
/// one it is this program. `scripts/corpus /tmp/kvx-corpus` makes /tmp/kvx-corpus/corpus.

#include "Harness.h"

#include "kvx/cabinet/CabBuilder.h"
#include "kvx/cabinet/CabExtractor.h"
#include "kvx/platform/mfc/File.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace
{
using namespace bench;
namespace fs = std::filesystem;

/// Takes what is written, and keeps nothing.
class Nowhere : public CFile
{
public:
    void Write(void const *, UINT) override {}
    ULONGLONG Seek(LONGLONG, UINT) override { return 0; }
    ULONGLONG GetPosition() const override { return 0; }
    void Close() override {}
};

void Must(bool isGood, char const * what)
{
    if (!isGood)
    {
        Fail(what);
    }
}

class Folder
{
public:
    Folder()
    {
        std::string name = (fs::temp_directory_path() / "kvx-read-XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~Folder() { fs::remove_all(m_path); }
    std::string operator/(std::string const & name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string Drive(std::string const & path)
{
    return "Z:" + path;
}

void Build(std::string const & cabinet, CCabFileSet & files)
{
    CCabBuilder builder("");
    builder.SetOptions({kvx::cabinet::Level::Default, true, 2});
    Must(builder.Build(Drive(cabinet).c_str(), files, ""), "no cabinet");
}

double Extract(std::string const & cabinet)
{
    Nowhere out;
    CCabFileSet files;
    files.AddFile(&out, "corpus");
    auto const start = Clock::now();
    Must(CCabExtractor("").Extract(Drive(cabinet).c_str(), files, ""), "not extracted");
    return Since(start);
}

double Run(std::string const & command)
{
    auto const start = Clock::now();
    Must(std::system((command + " >/dev/null 2>&1").c_str()) == 0, command.c_str());
    return Since(start);
}

void CompareExtraction(std::string const & name, std::string const & cabinet, int rounds, double perKiB, double rate)
{
    auto const ours = [&] { return Extract(cabinet) / perKiB; };
    for (std::string const other : {"7z t -mmt1 ", "cabextract -t -q ", "bsdtar -xOf "})
    {
        Compare({name + ", " + other.substr(0, other.find(' ')), 0, 0, Target::AtLeast, 1}, rounds, ours,
                [&] { return Run(other + cabinet) / perKiB; });
    }
    Compare({name + ", " + std::to_string(static_cast<int>(rate)) + " MB/s", 0, 0, Target::AtLeast, 1}, rounds, ours,
            [&] { return 1024 * 1000 / rate; });
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const rounds = options.IsBrief() ? 1 : options.GetNumber("rounds", 7);
    std::string const usual = "/tmp/kvx-corpus/corpus";
    bool const isUsual = !options.IsBrief() && fs::exists(usual);
    std::string const corpus = options.Get("corpus", isUsual ? usual : fs::read_symlink("/proc/self/exe").string());
    double const perKiB = static_cast<double>(fs::file_size(corpus)) / 1024;
    Folder const folder;
    for (auto const & [name, method, rate] :
         {std::tuple("MSZIP", USHORT{1}, 300.0), std::tuple("LZX:21", TCOMPfromLZXWindow(21), 340.0)})
    {
        std::string const cabinet = folder / (std::string(name, 3) + ".cab");
        CCabFileSet files;
        files.AddFile(Drive(corpus).c_str(), "corpus", 0, method);
        Build(cabinet, files);
        CompareExtraction(name, cabinet, rounds, perKiB, rate);
    }

    constexpr int FILES = 60000;
    CMemFile content;
    content.Write("content", 7);
    CCabFileSet many;
    for (int i = 0; i < FILES; i++)
    {
        many.AddFile(&content, CStringA(("folder\\file " + std::to_string(i)).c_str()));
    }
    std::string const cabinet = folder / "many.cab";
    Build(cabinet, many);
    auto const list = [&]
    {
        CCabFileSet listed;
        auto const start = Clock::now();
        Must(CCabExtractor("").ListContents(Drive(cabinet).c_str(), listed), "not listed");
        Must(listed.GetCount() == FILES, "not all listed");
        return Since(start);
    };
    Compare({"list 60,000 files, 0.2 s", 0, 0, Target::AtMost, 1}, rounds, list, [] { return 0.2e9; });
    Compare({"list 60,000 files, 7z l", 0, 0, Target::AtMost, 1}, rounds, list, [&] { return Run("7z l " + cabinet); });
    return 0;
}
