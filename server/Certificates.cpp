#include "Certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <cstdio>
#include <memory>

namespace Certificates {

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Cert = std::unique_ptr<X509, decltype(&X509_free)>;

bool Exists(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

Key NewKey()
{
    return Key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
}

bool AddExtension(X509* cert, X509* issuer, int nid, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (!extension)
        return false;
    const bool ok = X509_add_ext(cert, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return ok;
}

Cert NewCertificate(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey, bool isCA)
{
    Cert cert(X509_new(), &X509_free);
    X509_set_version(cert.get(), 2);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7F;
    BIGNUM* number = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(number, X509_get_serialNumber(cert.get()));
    BN_free(number);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 60L * 60 * 24 * 825);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("qmmember-server"),
                               -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1, -1,
                               0);
    X509* signer = issuer ? issuer : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
    bool ok = true;
    if (isCA) {
        ok = AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE")
             && AddExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign")
             && AddExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
    } else {
        ok = AddExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE")
             && AddExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature")
             && AddExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth")
             && AddExtension(cert.get(), signer, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1")
             && AddExtension(cert.get(), signer, NID_authority_key_identifier, "keyid");
    }
    if (!ok || X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256()) == 0)
        return Cert(nullptr, &X509_free);
    return cert;
}

bool WritePem(const std::string& path, X509* cert, EVP_PKEY* key)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    ::chmod(path.c_str(), key ? 0600 : 0644);
    const bool ok = key ? PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1
                        : PEM_write_X509(file, cert) == 1;
    return std::fclose(file) == 0 && ok;
}

} // namespace

bool Ensure(const std::string& folder, Paths& paths, std::string& error)
{
    paths.ca = folder + "/ca.pem";
    paths.certificate = folder + "/server.pem";
    paths.key = folder + "/server-key.pem";
    if (Exists(paths.ca) && Exists(paths.certificate) && Exists(paths.key))
        return true;

    Key caKey = NewKey();
    Key serverKey = NewKey();
    if (!caKey || !serverKey) {
        error = "cannot generate EC P-256 keys";
        return false;
    }
    Cert ca = NewCertificate(caKey.get(), "qmmember-server local CA", nullptr, nullptr, true);
    if (!ca) {
        error = "cannot make the CA certificate";
        return false;
    }
    Cert server = NewCertificate(serverKey.get(), "localhost", ca.get(), caKey.get(), false);
    if (!server) {
        error = "cannot make the server certificate";
        return false;
    }
    if (!WritePem(paths.ca, ca.get(), nullptr) || !WritePem(paths.certificate, server.get(), nullptr)
        || !WritePem(paths.key, nullptr, serverKey.get())) {
        error = "cannot write certificates to " + folder;
        return false;
    }
    return true;
}

} // namespace Certificates
