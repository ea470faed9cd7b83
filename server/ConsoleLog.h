#pragma once

#include <httplib.h>

#include <string>

// The one-line request log a developer sees on the terminal: method, path, query with the
// values of secret-looking names redacted, status and size. Never a header or a body.
std::string ConsoleLogLine(const httplib::Request& request, const httplib::Response& response);

// The lines that point qmmember and a shell at this server.
std::string ExportLines(int port, const std::string& caFile);
