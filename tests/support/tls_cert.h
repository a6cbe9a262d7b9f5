#ifndef KIV_TESTS_SUPPORT_TLS_CERT_H
#define KIV_TESTS_SUPPORT_TLS_CERT_H

#include <string>

namespace kiv {
namespace test {

// A self-signed certificate and its private key, both PEM text.
struct TlsCert {
    std::string cert_pem;
    std::string key_pem;
};

// Makes a fresh EC P-256 key and a self-signed certificate for `host`, valid from an hour ago
// for one day: subject CN and subjectAltName DNS:`host`, plus IP:127.0.0.1 and IP:::1 when
// `with_loopback_ip`. The certificate is its own CA (basicConstraints CA:TRUE), so a client may
// trust it directly, for instance through CURLOPT_CAINFO. Throws std::runtime_error on failure.
TlsCert make_self_signed_cert(const std::string& host, bool with_loopback_ip = true);

// A certificate authority (CA:TRUE, may sign certificates) named `name`.
TlsCert make_ca(const std::string& name);

// A server certificate for `host` (subjectAltName DNS:`host`, plus IP:127.0.0.1 and IP:::1 when
// `with_loopback_ip`), signed by `ca`. Verifies against the CA's certificate alone.
TlsCert make_signed_cert(const TlsCert& ca, const std::string& host, bool with_loopback_ip = true);

// The certificate's public key pin in libcurl's CURLOPT_PINNEDPUBLICKEY form:
// "sha256//" + base64(SHA-256 of the DER SubjectPublicKeyInfo).
std::string public_key_pin(const TlsCert& cert);

struct TlsCertFiles {
    std::string cert_path;
    std::string key_path;
};

// Writes the certificate and key as `dir`/`stem`.crt and `dir`/`stem`.key.
TlsCertFiles write_cert_files(const TlsCert& cert, const std::string& dir,
                              const std::string& stem = "server");

}  // namespace test
}  // namespace kiv

#endif
