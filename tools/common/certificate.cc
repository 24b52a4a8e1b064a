#include "certificate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace telvo::tool {

namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;
using BIOPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

bool isIPv4(const std::string& host) {
  in_addr address;
  return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

bool isIPv6(const std::string& host) {
  in6_addr address;
  return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

void require(bool ok, const char* step) {
  if (!ok) throw std::runtime_error(std::string("self-signed certificate: ") + step + " failed");
}

void addExtension(X509* certificate, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  require(extension != nullptr, "making an extension");
  require(X509_add_ext(certificate, extension.get(), -1) == 1, "adding an extension");
}

template <typename Write>
std::string toPEM(Write write) {
  BIOPtr bio(BIO_new(BIO_s_mem()));
  require(bio != nullptr, "allocating a buffer");
  require(write(bio.get()) == 1, "writing PEM");
  char* data = nullptr;
  long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
  // Written beside the target and renamed, so a reader never sees half a key.
  const std::string temporary = path + ".tmp";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + temporary + ": " + std::strerror(errno));
  size_t written = 0;
  while (written < content.size()) {
    ssize_t n = ::write(fd, content.data() + written, content.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      int saved = errno;
      ::close(fd);
      ::unlink(temporary.c_str());
      throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(saved));
    }
    written += static_cast<size_t>(n);
  }
  ::fchmod(fd, mode);
  ::close(fd);
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    int saved = errno;
    ::unlink(temporary.c_str());
    throw std::runtime_error("cannot replace " + path + ": " + std::strerror(saved));
  }
}

}  // namespace

SelfSignedCertificate makeSelfSignedCertificate(const std::string& host, int validDays) {
  if (host.empty() || (host.find_first_of(",: \r\n") != std::string::npos && !isIPv6(host))) {
    throw std::runtime_error("self-signed certificate: bad host name \"" + host + "\"");
  }
  if (validDays < 1) throw std::runtime_error("self-signed certificate: validDays must be >= 1");
  KeyPtr key(EVP_EC_gen("P-256"));
  require(key != nullptr, "making an EC P-256 key");

  X509Ptr certificate(X509_new());
  require(certificate != nullptr, "allocating a certificate");
  require(X509_set_version(certificate.get(), 2) == 1, "setting the version");

  unsigned char serial[16];
  require(RAND_bytes(serial, sizeof serial) == 1, "drawing a serial number");
  serial[0] &= 0x7F;  // a positive number
  BIGNUM* number = BN_bin2bn(serial, sizeof serial, nullptr);
  require(number != nullptr, "making a serial number");
  ASN1_INTEGER* asn1Serial = BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate.get()));
  BN_free(number);
  require(asn1Serial != nullptr, "setting the serial number");

  require(X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60 * 60) != nullptr,
          "setting the start date");
  require(
      X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 60L * 60 * 24 * validDays) != nullptr,
      "setting the end date");
  require(X509_set_pubkey(certificate.get(), key.get()) == 1, "setting the public key");

  X509_NAME* name = X509_get_subject_name(certificate.get());
  require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>(host.c_str()), -1, -1,
                                     0) == 1,
          "setting the common name");
  require(X509_set_issuer_name(certificate.get(), name) == 1, "setting the issuer");

  addExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature");
  addExtension(certificate.get(), NID_ext_key_usage, "serverAuth");
  addExtension(certificate.get(), NID_subject_key_identifier, "hash");
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  if (host != "localhost" && host != "127.0.0.1" && host != "::1") {
    names += (isIPv4(host) || isIPv6(host) ? ",IP:" : ",DNS:") + host;
  }
  addExtension(certificate.get(), NID_subject_alt_name, names.c_str());

  require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "signing");

  SelfSignedCertificate result;
  result.certificatePEM =
      toPEM([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate.get()); });
  result.privateKeyPEM = toPEM([&](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  return result;
}

bool writeSelfSignedCertificate(const std::string& certificatePath,
                                const std::string& privateKeyPath, const std::string& host,
                                std::string* error) {
  try {
    SelfSignedCertificate made = makeSelfSignedCertificate(host);
    writeFile(privateKeyPath, made.privateKeyPEM, 0600);
    writeFile(certificatePath, made.certificatePEM, 0644);
    return true;
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    return false;
  }
}

std::optional<CertificateFiles> writeSelfSignedCertificateFiles(const std::string& folder,
                                                                std::string* error) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    if (error) *error = "cannot create " + folder + ": " + std::strerror(errno);
    return std::nullopt;
  }
  CertificateFiles files{folder + "/certificate.pem", folder + "/key.pem"};
  if (!writeSelfSignedCertificate(files.certificatePath, files.privateKeyPath, "127.0.0.1",
                                  error)) {
    return std::nullopt;
  }
  return files;
}

}  // namespace telvo::tool
