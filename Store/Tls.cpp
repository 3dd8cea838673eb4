#include "Store/Tls.h"

#include "Runtime/Assert.h"
#include "Runtime/Text.h"
#include "Store/Address.h"
#include "Store/Files.h"
#include "Store/Reply.h"

#include <algorithm>
#include <array>
#include <climits>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace Store {

using Runtime::concat;

namespace {

/// The library's words for the first thing that went wrong.
std::string libraryProblem() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    return reason != nullptr ? inOneLine(reason) : "unknown error";
}

/// Without it the library would ask at the terminal, and wait.
int noPassword(char*, int, int, void*) { return -1; }

std::string cannotUse(const std::string& file, const char* what) {
    return concat("file ", file, ": no usable ", what, " (", libraryProblem(), ')');
}

/// Empty on success, else one line.
std::string readFiles(SSL_CTX* context, const TlsFiles& files) {
    for (const std::string* file : {&files.authorities, &files.certificate, &files.key}) {
        if (file->empty()) continue;
        if (std::string problem = notPlain(*file); !problem.empty()) return problem;
    }
    if (files.certificate.empty() != files.key.empty())
        return "TLS: a certificate needs a key, and a key a certificate";
    if (files.authorities.empty())
        SSL_CTX_set_default_verify_paths(context);
    else if (SSL_CTX_load_verify_file(context, files.authorities.c_str()) != 1)
        return cannotUse(files.authorities, "certificates");
    if (files.certificate.empty()) return {};
    if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) != 1)
        return cannotUse(files.certificate, "certificate");
    if (SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) != 1)
        return cannotUse(files.key, "key to the certificate");
    return {};
}

}  // namespace

void TlsContext::Free::operator()(ssl_ctx_st* context) const { SSL_CTX_free(context); }

ssl_ctx_st* TlsContext::of(const TlsFiles& files, std::string& problem) {
    const std::string& authorities = files.authorities;
    const std::string stamps =
        concat(fileStamp(authorities.empty() ? X509_get_default_cert_file() : authorities), ',',
               fileStamp(files.certificate), ',', fileStamp(files.key));
    if (context_ && files_ == files && stamps_ == stamps) return context_.get();
    files_ = files;
    stamps_ = stamps;
    ERR_clear_error();
    context_.reset(SSL_CTX_new(TLS_client_method()));
    Runtime::require(context_ != nullptr, "memory for TLS");
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
    SSL_CTX_set_options(context_.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_default_passwd_cb(context_.get(), noPassword);
    problem = readFiles(context_.get(), files);
    if (!problem.empty()) context_ = nullptr;
    return context_.get();
}

void TlsSession::Free::operator()(ssl_st* session) const { SSL_free(session); }

std::unique_ptr<TlsSession> TlsSession::begin(const TlsFiles& files, TlsContext& context,
                                              const std::string& address, std::string& problem) {
    const std::string& server = files.server.empty() ? address : files.server;
    if (server.empty()) {
        problem = "TLS: no name or address is known that the server's certificate should have";
        return nullptr;
    }
    ssl_ctx_st* const kept = context.of(files, problem);
    if (kept == nullptr) return nullptr;
    ssl_st* const made = SSL_new(kept);
    Runtime::require(made != nullptr, "memory for TLS");
    std::unique_ptr<TlsSession> session{new TlsSession{made}};
    const bool figures = isFigures(server);
    const int expects = figures ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(made), server.c_str())
                                : SSL_set1_host(made, server.c_str());
    if (expects != 1 || (!figures && SSL_set_tlsext_host_name(made, server.c_str()) != 1)) {
        problem = concat("TLS: no certificate can have the name \"", inOneLine(server), '"');
        return nullptr;
    }
    SSL_set_connect_state(made);
    problem = session->shakeHands();
    return problem.empty() ? std::move(session) : nullptr;
}

TlsSession::TlsSession(ssl_st* session)
    : session_{session}, in_{BIO_new(BIO_s_mem())}, out_{BIO_new(BIO_s_mem())} {
    Runtime::require(in_ != nullptr && out_ != nullptr, "memory for TLS");
    SSL_set_bio(session, in_, out_);
}

std::string TlsSession::shakeHands() {
    ERR_clear_error();
    const int result = SSL_do_handshake(session_.get());
    established_ = result == 1;
    return established_ || SSL_get_error(session_.get(), result) == SSL_ERROR_WANT_READ ? ""
                                                                                        : failure(result);
}

std::string TlsSession::failure(int result) const {
    const int kind = SSL_get_error(session_.get(), result);
    if (kind == SSL_ERROR_ZERO_RETURN) return "the server has closed the connection";
    const long verified = SSL_get_verify_result(session_.get());
    const std::string words = libraryProblem();
    return verified == X509_V_OK || established_ ? concat("TLS: ", words)
                                                 : concat("TLS: the server's certificate is not accepted: ",
                                                          X509_verify_cert_error_string(verified));
}

std::string TlsSession::take(std::string_view octets, std::string& plain) {
    const int length = static_cast<int>(octets.size());
    Runtime::require(octets.size() <= INT_MAX && BIO_write(in_, octets.data(), length) == length,
                     "memory for TLS");
    if (!established_) {
        if (std::string problem = shakeHands(); !problem.empty()) return problem;
        if (!established_) return {};
    }
    std::array<char, 16384> piece{};
    int count = 0;
    ERR_clear_error();
    while ((count = SSL_read(session_.get(), piece.data(), static_cast<int>(piece.size()))) > 0)
        plain.append(piece.data(), static_cast<std::size_t>(count));
    return SSL_get_error(session_.get(), count) == SSL_ERROR_WANT_READ ? "" : failure(count);
}

std::string TlsSession::give(std::string_view plain) {
    while (!plain.empty()) {
        const auto most = std::min<std::size_t>(plain.size(), INT_MAX);
        ERR_clear_error();
        const int count = SSL_write(session_.get(), plain.data(), static_cast<int>(most));
        if (count <= 0) return failure(count);
        plain.remove_prefix(static_cast<std::size_t>(count));
    }
    return {};
}

std::string_view TlsSession::unsent() const {
    char* octets = nullptr;
    const long length = BIO_get_mem_data(out_, &octets);
    return length > 0 ? std::string_view{octets, static_cast<std::size_t>(length)} : std::string_view{};
}

void TlsSession::sent(std::size_t octets) {
    std::array<char, 16384> scratch{};
    while (octets > 0) {
        const int count = BIO_read(out_, scratch.data(), static_cast<int>(std::min(octets, scratch.size())));
        if (count <= 0) return;
        octets -= static_cast<std::size_t>(count);
    }
}

}  // namespace Store
