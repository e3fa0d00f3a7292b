#include "Service.h"

#include "tests/support/OneHost.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace
{
class JsonReader
{
public:
    std::string_view rest;

    bool Take(std::string_view literal)
    {
        bool const bHere = rest.starts_with(literal);
        rest.remove_prefix(bHere ? literal.size() : 0);
        return bHere;
    }
    void Expect(std::string_view literal)
    {
        if (!Take(literal))
        {
            throw std::runtime_error("expected " + std::string(literal) + " at " + std::string(rest.substr(0, 40)));
        }
    }
    std::string TakeChars(std::size_t count)
    {
        std::string const chars(rest.substr(0, count));
        rest.remove_prefix(chars.size());
        return chars;
    }
    std::string Text()
    {
        std::string text;
        for (Expect("\""); !Take("\"");)
        {
            char c = TakeChars(1).at(0);
            if (static_cast<unsigned char>(c) < 0x20)
            {
                throw std::runtime_error("control character in a text");
            }
            if (c == '\\')
            {
                c = Take("u00") ? static_cast<char>(std::stoi(TakeChars(2), nullptr, 16))
                                : "\n\r\t\"\\"[std::string_view("nrt\"\\").find(TakeChars(1).at(0))];
            }
            text += c;
        }
        return text;
    }
    template <class F>
    auto List(F const & item)
    {
        std::vector<decltype(item())> list;
        Expect("[");
        for (bool bMore = !Take("]"); bMore; bMore = Take(",") || (Expect("]"), false))
        {
            list.push_back(item());
        }
        return list;
    }
};
} // namespace

std::string GetKvx()
{
    std::filesystem::path const self = host::GetProgram();
    return (self.parent_path() / "kvx").replace_extension(self.extension()).string();
}

Strings Join(Strings first, Strings const & second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Process::Process(Strings const & args, Stdout out, std::string const & input)
    : Process(Strings{GetKvx()}, args, out, input)
{
}

Process::Process(Strings const & program, Strings const & args, Stdout out, std::string const & input, host::End end)
    : host::Process(Join(program, args), out, {{"TZ", "UTC"}}, input, end) // so that the tests know what local time is
{
}

Result RunKvx(Strings const & args, Stdout out, std::string const & input, Strings const & program)
{
    Process process(program, args, out, input, host::End::Unasked);
    int const status = process.Wait();
    return {status, process.strOut, process.strErr};
}

Response::Response(std::string_view json)
{
    JsonReader reader{json};
    auto const texts = [&] { return reader.List([&] { return reader.Text(); }); };
    reader.Expect("{\"code\":");
    nCode = std::stoll(reader.TakeChars(reader.rest.find(',')));
    reader.Expect(",\"text\":");
    strText = reader.Text();
    reader.Expect(",\"rowsets\":");
    rowSets = reader.List(
        [&]
        {
            RowSet set;
            reader.Expect("{\"name\":");
            set.strName = reader.Text();
            reader.Expect(",\"columns\":");
            set.columns = texts();
            reader.Expect(",\"rows\":");
            set.rows = reader.List(texts);
            reader.Expect("}");
            return set;
        });
    EXPECT_EQ(reader.rest, "}\n");
}

Service::Service(Strings const & options, Strings const & listeners, Strings const & program)
    : process(program, Join(Join({"serve"}, listeners), options))
{
    std::string const tcp = "tcp:127.0.0.1:";
    for (std::size_t i = 0; i < listeners.size(); ++i)
    {
        std::string const line = process.ReadLine();
        if (!line.starts_with("READY "))
        {
            process.Wait();
            throw std::runtime_error("not ready: " + line + process.strErr);
        }
        addresses.push_back(line.substr(6));
        nPort = addresses.back().starts_with(tcp) ? std::stoi(addresses.back().substr(tcp.size())) : nPort;
    }
    strAddress = addresses.front();
}

Response Service::Call(Strings const & words) const
{
    Result const result = RunKvx(Join({"call", strAddress, "--format", "json"}, words));
    Response response(result.strOut);
    std::string const line = "error " + std::to_string(response.nCode) + ": " + response.strText + "\n";
    EXPECT_EQ(result.strErr, response.nCode == 0 ? "" : line);
    EXPECT_EQ(result.nStatus, response.nCode == 0 ? 0 : 1);
    return response;
}

int Service::Stop()
{
    process.Terminate();
    return process.Wait();
}

OwnRegistry::OwnRegistry() : strFolder(host::MakeFolder("kvx-reg"))
{
    Clear();
    host::SetVariable("KVX_REGISTRY", (strFolder + "/registry.db").c_str());
}

OwnRegistry::~OwnRegistry()
{
    Clear();
    host::SetVariable("KVX_REGISTRY", nullptr);
    std::filesystem::remove_all(strFolder);
}

void OwnRegistry::Clear()
{
    if (host::IsWindows())
    {
        for (std::string const key : {"HKCU\\Software\\Acme", "HKCU\\Software\\Copy", "HKLM\\Software\\Acme"})
        {
            RunKvx({"reg", "delete", key, "--recursive"});
        }
    }
}
