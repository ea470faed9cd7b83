#include "ConsoleLog.h"

#include <algorithm>
#include <cctype>
#include <ctime>

namespace {

bool IsSecretName(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const char* secret : {"token", "password", "secret", "code", "credential"})
        if (name.find(secret) != std::string::npos)
            return true;
    return false;
}

// One line per request, whatever the client sent.
std::string Printable(const std::string& text)
{
    std::string out;
    for (unsigned char c : text.substr(0, 200))
        out += c < 0x20 || c == 0x7f ? '?' : static_cast<char>(c);
    return out;
}

std::string ShellQuoted(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

} // namespace

std::string ConsoleLogLine(const httplib::Request& request, const httplib::Response& response)
{
    std::string query;
    for (const auto& [name, value] : request.params) {
        query += query.empty() ? "?" : "&";
        query += Printable(name) + "=" + (IsSecretName(name) ? std::string("<redacted>") : Printable(value));
    }
    const std::time_t now = std::time(nullptr);
    char clock[16] = {};
    std::tm local {};
    localtime_r(&now, &local);
    std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
    return std::string(clock) + " " + Printable(request.method) + " " + Printable(request.path) + query + " -> "
           + std::to_string(response.status) + " (" + std::to_string(response.body.size()) + " bytes)";
}

std::string ExportLines(int port, const std::string& caFile)
{
    const std::string host = "127.0.0.1:" + std::to_string(port);
    return "export QM_API_HOST=" + host + "\nexport QM_WEB_HOST=" + host + "\nexport QM_CA_FILE=" + ShellQuoted(caFile)
           + "\n";
}
