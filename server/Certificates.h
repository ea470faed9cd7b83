#pragma once

#include <string>

// A private CA and an ECDSA P-256 server certificate for 127.0.0.1 and
// localhost, made once in the state folder and reused on later starts.
namespace Certificates {

struct Paths {
    std::string ca;
    std::string certificate;
    std::string key;
};

/// Creates the files when missing; false with \a error when that fails.
bool Ensure(const std::string& folder, Paths& paths, std::string& error);

} // namespace Certificates
