#include "tests/support/tls_cert.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

#include "tests/support/temp_dir.h"

namespace kiv {
namespace test {

namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

[[noreturn]] void fail(const char* what) {
    char detail[256] = "";
    ERR_error_string_n(ERR_get_error(), detail, sizeof detail);
    throw std::runtime_error(std::string(what) + ": " + detail);
}

void check(int ok, const char* what) {
    if (ok <= 0) {
        fail(what);
    }
}

template <typename Write>
std::string to_pem(Write write) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        fail("BIO_new");
    }
    check(write(bio.get()), "PEM_write");
    char* data = nullptr;
    long len = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(len));
}

}  // namespace

namespace {

KeyPtr read_key(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    KeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key) {
        fail("PEM_read_bio_PrivateKey");
    }
    return key;
}

CertPtr read_cert(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    CertPtr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!cert) {
        fail("PEM_read_bio_X509");
    }
    return cert;
}

// A certificate for `subject` with a fresh key, signed by `issuer` (itself when null). A CA
// may sign certificates; a leaf names `host` (and 127.0.0.1 when asked) for TLS servers.
TlsCert make_cert(const std::string& subject, const TlsCert* issuer, bool ca,
                  bool with_loopback_ip) {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key) {
        fail("EVP_EC_gen");
    }
    CertPtr cert(X509_new());
    if (!cert) {
        fail("X509_new");
    }
    check(X509_set_version(cert.get(), 2), "X509_set_version");
    // A random serial: clients that cache certificates by issuer and serial must not confuse
    // two certificates made by different tests.
    unsigned char serial[8];
    check(RAND_bytes(serial, sizeof serial), "RAND_bytes");
    serial[0] &= 0x7f;
    uint64_t serialValue = 0;
    for (unsigned char b : serial) {
        serialValue = (serialValue << 8) | b;
    }
    check(ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert.get()), serialValue),
          "ASN1_INTEGER_set_uint64");
    if (!X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) ||
        !X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600)) {
        fail("X509_gmtime_adj");
    }
    check(X509_set_pubkey(cert.get(), key.get()), "X509_set_pubkey");
    X509_NAME* name = X509_get_subject_name(cert.get());
    check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>(subject.c_str()), -1,
                                     -1, 0),
          "X509_NAME_add_entry_by_txt");
    CertPtr issuerCert = issuer ? read_cert(issuer->cert_pem) : nullptr;
    KeyPtr issuerKey = issuer ? read_key(issuer->key_pem) : nullptr;
    X509* signer = issuer ? issuerCert.get() : cert.get();
    check(X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)), "X509_set_issuer_name");

    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, signer, cert.get(), nullptr, nullptr, 0);
    auto extend = [&](int nid, const std::string& value) {
        ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
        if (!ext) {
            fail("X509V3_EXT_conf_nid");
        }
        check(X509_add_ext(cert.get(), ext.get(), -1), "X509_add_ext");
    };
    extend(NID_basic_constraints, ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
    extend(NID_key_usage,
           ca ? "critical,digitalSignature,keyCertSign" : "critical,digitalSignature");
    extend(NID_subject_key_identifier, "hash");
    if (issuer) {
        extend(NID_authority_key_identifier, "keyid:always");
    }
    extend(NID_ext_key_usage, "serverAuth");
    extend(NID_subject_alt_name,
           "DNS:" + subject + (with_loopback_ip ? ",IP:127.0.0.1,IP:::1" : ""));
    if (X509_sign(cert.get(), issuer ? issuerKey.get() : key.get(), EVP_sha256()) <= 0) {
        fail("X509_sign");
    }

    TlsCert result;
    result.cert_pem = to_pem([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
    result.key_pem = to_pem([&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    return result;
}

}  // namespace

TlsCert make_self_signed_cert(const std::string& host, bool with_loopback_ip) {
    // Its own CA, so a client may trust it directly (CURLOPT_CAINFO).
    return make_cert(host, nullptr, true, with_loopback_ip);
}

TlsCert make_ca(const std::string& name) {
    return make_cert(name, nullptr, true, false);
}

TlsCert make_signed_cert(const TlsCert& ca, const std::string& host, bool with_loopback_ip) {
    return make_cert(host, &ca, false, with_loopback_ip);
}

std::string public_key_pin(const TlsCert& cert) {
    CertPtr parsed = read_cert(cert.cert_pem);
    unsigned char* der = nullptr;
    const int len = i2d_PUBKEY(X509_get0_pubkey(parsed.get()), &der);
    if (len <= 0) {
        fail("i2d_PUBKEY");
    }
    unsigned char digest[32];
    unsigned int digestLen = 0;
    const int ok =
        EVP_Digest(der, static_cast<size_t>(len), digest, &digestLen, EVP_sha256(), nullptr);
    OPENSSL_free(der);
    check(ok, "EVP_Digest");
    unsigned char base64[64];
    const int written = EVP_EncodeBlock(base64, digest, static_cast<int>(digestLen));
    return "sha256//" + std::string(reinterpret_cast<char*>(base64), static_cast<size_t>(written));
}

TlsCertFiles write_cert_files(const TlsCert& cert, const std::string& dir,
                              const std::string& stem) {
    TlsCertFiles files{dir + "/" + stem + ".crt", dir + "/" + stem + ".key"};
    write_file(files.cert_path, cert.cert_pem);
    write_file(files.key_path, cert.key_pem);
    return files;
}

}  // namespace test
}  // namespace kiv
