/// Writing cabinets with MSZIP from one file to another: sizes against zlib's best in one stream, rates against gcab
/// and plain ones. --corpus=FILE tells what is compressed; without one it is this program. `scripts/corpus
/// /tmp/kvx-corpus` makes /tmp/kvx-corpus/corpus.

#include "Harness.h"

#include "kvx/cabinet/CabCompression.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace
{
using namespace bench;
using kvx::cabinet::CabCompression;
using kvx::cabinet::Level;

INT_PTR OpenFile(char * name, int flags, int, int *, void *)
{
    return open(name, O_RDWR | O_CLOEXEC | (flags & 0x100 ? O_CREAT | O_TRUNC : 0), 0600);
}
UINT ReadFile(INT_PTR file, void * to, UINT size, int *, void *)
{
    return static_cast<UINT>(read(static_cast<int>(file), to, size));
}
UINT WriteFile(INT_PTR file, void * from, UINT size, int *, void *)
{
    return static_cast<UINT>(write(static_cast<int>(file), from, size));
}
int CloseFile(INT_PTR file, int *, void *)
{
    return close(static_cast<int>(file));
}
LONG SeekFile(INT_PTR file, LONG distance, int origin, int *, void *)
{
    return static_cast<LONG>(lseek(static_cast<int>(file), distance, origin));
}
int RemoveFile(char * name, int *, void *)
{
    return unlink(name);
}
BOOL NameTemporary(char * name, int size, void * folder)
{
    std::snprintf(name, static_cast<std::size_t>(size), "%s/temporary", static_cast<char const *>(folder));
    return TRUE;
}
INT_PTR OpenSource(char * name, USHORT * date, USHORT * time, USHORT * attributes, int *, void *)
{
    *date = 0x5A21;
    *time = *attributes = 0;
    return open(name, O_RDONLY | O_CLOEXEC);
}
int IgnorePlaced(CCAB *, char *, LONG, BOOL, void *)
{
    return 0;
}
void * Allocate(ULONG size)
{
    return std::malloc(size);
}

class Corpus
{
public:
    explicit Corpus(std::string const & source) : m_source(source), m_size(std::filesystem::file_size(source))
    {
        std::string name = (std::filesystem::temp_directory_path() / "kvx-cabinets-XXXXXX").string();
        m_folder = mkdtemp(name.data());
    }
    ~Corpus() { std::filesystem::remove_all(m_folder); }

    /// Nanoseconds of 1,024 bytes.
    double PerKiB(double nanoseconds) const { return 1024 * nanoseconds / static_cast<double>(m_size); }
    /// What a plain rate in MB/s is in these.
    static double FromRate(double rate) { return 1024 * 1000 / rate; }

    double Write(Level level, unsigned jobs)
    {
        auto const start = Clock::now();
        ERF erf{};
        CCAB ccab{};
        ccab.cbFolderThresh = 0x7FFFFFFF;
        std::snprintf(ccab.szCabPath, sizeof ccab.szCabPath, "%s/", m_folder.c_str());
        std::snprintf(ccab.szCab, sizeof ccab.szCab, "ours.cab");
        auto const writer = CabCompression::Create(&erf,
                                                   {IgnorePlaced, Allocate, std::free, OpenFile, ReadFile, WriteFile,
                                                    CloseFile, SeekFile, RemoveFile, NameTemporary},
                                                   &ccab, m_folder.data());
        if (writer)
        {
            writer->SetOptions({level, true, jobs});
        }
        if (!writer ||
            !writer->AddFile(m_source.c_str(), "corpus", FALSE, nullptr, nullptr, OpenSource, tcompTYPE_MSZIP) ||
            !writer->FlushCabinet(FALSE, nullptr, nullptr))
        {
            Fail("no cabinet: error " + std::to_string(erf.erfOper));
        }
        return PerKiB(Since(start));
    }
    double WriteByGcab()
    {
        auto const start = Clock::now();
        if (std::system(("gcab -c -z -n " + m_folder + "/gcab.cab " + m_source).c_str()) != 0)
        {
            Fail("gcab can't be run");
        }
        return PerKiB(Since(start));
    }
    double GetSize(std::string const & cabinet) const
    {
        return static_cast<double>(std::filesystem::file_size(m_folder + "/" + cabinet));
    }
    double GetSizeByZlib() const
    {
        FILE * const file = std::fopen(m_source.c_str(), "rb");
        std::vector<unsigned char> in(1 << 20);
        std::vector<unsigned char> out(1 << 20);
        z_stream stream{};
        deflateInit2(&stream, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        int result = Z_OK;
        while (result == Z_OK)
        {
            stream.avail_in = static_cast<uInt>(std::fread(in.data(), 1, in.size(), file));
            stream.next_in = in.data();
            int const flush = stream.avail_in < in.size() ? Z_FINISH : Z_NO_FLUSH;
            do
            {
                stream.next_out = out.data();
                stream.avail_out = static_cast<uInt>(out.size());
                result = deflate(&stream, flush);
            } while (result == Z_OK && stream.avail_out == 0);
        }
        double const size = static_cast<double>(stream.total_out);
        deflateEnd(&stream);
        std::fclose(file);
        return size;
    }

private:
    std::string m_source;
    std::uintmax_t m_size;
    std::string m_folder;
};
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const rounds = options.IsBrief() ? 2 : options.GetNumber("rounds", 5);
    std::string const usual = "/tmp/kvx-corpus/corpus";
    bool const bUsual = !options.IsBrief() && std::filesystem::exists(usual);
    Corpus corpus(options.Get("corpus", bUsual ? usual : std::filesystem::read_symlink("/proc/self/exe").string()));
    auto const ours = [&](Level level, unsigned jobs)
    { return [&, level, jobs] { return corpus.Write(level, jobs); }; };

    Compare({"MSZIP, gcab's rate", 0, 0, Target::AtLeast, 1}, rounds, ours(Level::Default, 1),
            [&] { return corpus.WriteByGcab(); });
    Compare({"MSZIP, fast, 80 MB/s", 0, 0, Target::AtLeast, 1}, rounds, ours(Level::Fast, 1),
            [] { return Corpus::FromRate(80); });
    Compare({"MSZIP, 2 jobs, 1 job's rate", 0, 0, Target::AtLeast, 1.7}, rounds, ours(Level::Default, 2),
            ours(Level::Default, 1));

    double const size = corpus.GetSizeByZlib();
    PrintValue("gcab's size, of zlib -9's", 100 * corpus.GetSize("gcab.cab") / size, 0, "%");
    struct Kind
    {
        char const * name;
        Level level;
        double bound;
    };
    for (Kind const & kind :
         {Kind{"fast", Level::Fast, 0}, {"default", Level::Default, 101}, {"best", Level::Best, 100.5}})
    {
        corpus.Write(kind.level, 2);
        PrintValue(std::string("MSZIP, ") + kind.name + ": size, of zlib -9's", 100 * corpus.GetSize("ours.cab") / size,
                   kind.bound, "%");
    }
    return 0;
}
