#include "tools/testcamera/certificate.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace testcamera {
namespace {

constexpr long kDay = 24L * 60 * 60;  // seconds
constexpr long kValidDays = 3650;

template <auto kFree>
struct FreeBy {
  template <typename T>
  void operator()(T* object) const {
    kFree(object);
  }
};
template <typename T, auto kFree>
using SslPtr = std::unique_ptr<T, FreeBy<kFree>>;

void AddExtension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const SslPtr<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  if (extension == nullptr || X509_add_ext(certificate, extension.get(), -1) != 1) {
    throw std::runtime_error("cannot make a certificate for " + value);
  }
}

// Signed by itself, so that a client may also take it for the authority that it trusts.
std::string MakePem(const std::string& host) {
  const SslPtr<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
  const SslPtr<X509, X509_free> certificate(X509_new());
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()),
                          static_cast<std::uint64_t>(g_get_real_time()));
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValidDays * kDay);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>("Orvanta test camera"), -1, -1,
                             0);
  X509_set_issuer_name(certificate.get(), name);
  AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate.get(), NID_subject_alt_name,
               "IP:127.0.0.1,IP:::1,DNS:localhost,IP:" + host);
  if (X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0) {
    throw std::runtime_error("cannot sign a certificate");
  }
  const SslPtr<BIO, BIO_free_all> text(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_bio_X509(text.get(), certificate.get());
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::string Fingerprint(GTlsCertificate* certificate) {
  GByteArray* bytes = nullptr;
  g_object_get(certificate, "certificate", &bytes, nullptr);
  const TextPtr digits(g_compute_checksum_for_data(G_CHECKSUM_SHA256, bytes->data, bytes->len));
  g_byte_array_unref(bytes);
  std::string fingerprint;
  for (const char* each = digits.get(); *each != 0; each += 2) {
    fingerprint += fingerprint.empty() ? "" : ":";
    fingerprint += {g_ascii_toupper(each[0]), g_ascii_toupper(each[1])};
  }
  return fingerprint;
}

}  // namespace

Certificate LoadCertificate(const std::string& path, const std::string& host) {
  GError* error = nullptr;
  GTlsCertificate* certificate = nullptr;
  if (!path.empty() && std::filesystem::exists(path)) {
    certificate = g_tls_certificate_new_from_file(path.c_str(), &error);
  } else {
    const std::string pem = MakePem(host);
    if (!path.empty() && !(std::ofstream(path) << pem << std::flush)) {
      throw std::runtime_error("cannot write the certificate " + path);
    }
    certificate = g_tls_certificate_new_from_pem(pem.c_str(), -1, &error);
  }
  if (certificate == nullptr) {
    const ErrorPtr owned(error);
    throw std::runtime_error("cannot use the certificate " + path + ": " + owned->message);
  }
  return {ObjectPtr<GTlsCertificate>(certificate), Fingerprint(certificate)};
}

}  // namespace testcamera
