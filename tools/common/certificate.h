// Throw-away TLS credentials for HTTPS servers on this machine (the test
// server, the local collector): a fresh EC P-256 key and a self-signed
// certificate for 127.0.0.1, ::1 and "localhost" (and a host of the caller's). A client trusts it
// by naming the certificate file as its CA file.
//
// Thread safety: the functions share no state; call them from any thread.
#pragma once

#include <optional>
#include <string>

namespace telvo::tool {

struct SelfSignedCertificate {
  std::string certificatePEM;
  std::string privateKeyPEM;  // unencrypted PKCS#8
};

struct CertificateFiles {
  std::string certificatePath;  // <folder>/certificate.pem
  std::string privateKeyPath;   // <folder>/key.pem, readable by the owner only
};

// Makes a new key and certificate: CN `host`, subject alternative names
// `host` (as an IP address or a DNS name), localhost, 127.0.0.1 and ::1, for
// server authentication, valid from an hour ago (clock skew) for `validDays`
// days. Throws std::runtime_error naming the failing step.
SelfSignedCertificate makeSelfSignedCertificate(const std::string& host = "127.0.0.1",
                                                int validDays = 30);

// Makes them as above and writes the two PEM files (the key readable by the
// owner only), replacing earlier files. False, with `*error` set, on failure.
bool writeSelfSignedCertificate(const std::string& certificatePath,
                                const std::string& privateKeyPath, const std::string& host,
                                std::string* error);

// The same into `folder` (created, not its parents, when missing) as
// certificate.pem and key.pem, for 127.0.0.1. Nothing, with `*error` set, on
// failure.
std::optional<CertificateFiles> writeSelfSignedCertificateFiles(const std::string& folder,
                                                                std::string* error);

}  // namespace telvo::tool
