// Context.cpp - makes an empty context of POCO's and fills it through OpenSSL itself.
//
// POCO would read key and passphrase through a manager that asks for an application object, would
// ignore a cipher list that does not parse, knows no revocation lists, and reports a refused
// certificate without saying why.
//
//   state               who touches it                       lock
//   refusal             each thread has its own              none
//   KnownStores         whoever makes a context              its _mutex
//   RenewedContext      whoever accepts a connection         its _mutex

#include "Context.h"

#include <Poco/Net/AcceptCertificateHandler.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/PrivateKeyPassphraseHandler.h>
#include <Poco/Net/RejectCertificateHandler.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Net/SSLManager.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "../log/UnitLog.h"
#include "../platform/Paths.h"
#include "../process/NeverDestroyed.h"
#include "ShippedDefaults.h"
#include "SystemAuthorities.h"

namespace fs = std::filesystem;

namespace kel::tls {

using Poco::Net::Context;
using Poco::Net::SSLException;
using Poco::Net::SSLManager;

namespace {

constexpr UnitLog log("src/common/Tls");

template <auto free>
struct Free {
    template <typename T>
    void operator()(T* object) const {
        free(object);
    }
};
using Bio = std::unique_ptr<BIO, Free<BIO_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;

// Why the last certificate that a peer showed to this thread was refused. An OpenSSL callback, out
// of which nothing may be thrown, fills it in: hence it holds nothing that has to be allocated.
struct Refusal {
    int error = X509_V_OK;
    char subject[160] = "";
};
thread_local Refusal refusal;

// X509_verify_cert() calls POCO's own callback, which asks the handlers, for each error it meets.
int verifyChain(X509_STORE_CTX* chain, void*) {
    const int verified = X509_verify_cert(chain);
    refusal.error = X509_STORE_CTX_get_error(chain);
    X509* const certificate = X509_STORE_CTX_get_current_cert(chain);
    if (certificate) {
        X509_NAME_oneline(X509_get_subject_name(certificate), refusal.subject,
                          sizeof refusal.subject);
    }
    return verified;
}

// What OpenSSL says about its last failure.
std::string opensslReason() {
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    return reason ? reason : "unknown reason";
}

[[noreturn]] void refuseFile(const std::string& what, const std::string& file,
                             const std::string& why) {
    ERR_clear_error();
    throw SSLException(what + " " + file, why);
}

void checkReadable(const std::string& what, const std::string& file) {
    errno = 0;
    const fs::path path = paths::forStandardLibrary(file);
    std::error_code unknown;
    if (fs::is_directory(path, unknown)) return;  // which Windows opens no stream on
    if (!std::ifstream(path)) refuseFile(what, file, std::strerror(errno ? errno : ENOENT));
}

std::string passphraseOf(const Settings& settings) {
    if (settings.passphraseHandler == "KeyFileHandler") return settings.passphrase;
    auto& handlers = SSLManager::instance().privateKeyFactoryMgr();
    const auto* factory = handlers.hasFactory(settings.passphraseHandler)
                              ? handlers.getFactory(settings.passphraseHandler)
                              : nullptr;
    if (!factory) {
        throw Poco::InvalidArgumentException(settings.origin + "privateKeyPassphraseHandler.name",
                                             "no such handler: " + settings.passphraseHandler);
    }
    std::string passphrase;
    const std::unique_ptr<Poco::Net::PrivateKeyPassphraseHandler> handler(
        factory->create(settings.server));
    handler->onPrivateKeyRequested(nullptr, passphrase);
    return passphrase;
}

// The passphrase of a key file, and whether OpenSSL has asked for it.
struct Passphrase {
    std::string text;
    bool asked = false;
};

int givePassphrase(char* buffer, int size, int, void* context) {
    auto& passphrase = *static_cast<Passphrase*>(context);
    passphrase.asked = true;
    if (passphrase.text.size() > static_cast<std::size_t>(size)) return -1;
    passphrase.text.copy(buffer, passphrase.text.size());
    return static_cast<int>(passphrase.text.size());
}

Key readKey(const Settings& settings) {
    const std::string what = settings.origin + "private key";
    checkReadable(what, settings.keyFile);
    Passphrase passphrase{passphraseOf(settings)};
    const Bio file(BIO_new_file(settings.keyFile.c_str(), "r"));
    if (!file) refuseFile(what, settings.keyFile, opensslReason());
    Key key(PEM_read_bio_PrivateKey(file.get(), nullptr, &givePassphrase, &passphrase));
    if (!key && passphrase.asked) {
        refuseFile(what, settings.keyFile, "the passphrase does not open it");
    }
    if (!key) refuseFile(what, settings.keyFile, "holds no key (" + opensslReason() + ")");
    if (passphrase.asked && passphrase.text == kShippedPassphrase) {
        log.warning(settings.origin + "privateKeyPassphraseHandler.options.password: the key " +
                    settings.keyFile + " is protected by the passphrase that everybody knows");
    }
    return key;
}

void useKeyAndCertificate(SSL_CTX* context, const Settings& settings) {
    if (settings.certificateFile.empty()) return;
    const std::string what = settings.origin + "certificate";
    checkReadable(what, settings.certificateFile);
    if (SSL_CTX_use_certificate_chain_file(context, settings.certificateFile.c_str()) != 1) {
        refuseFile(what, settings.certificateFile, opensslReason());
    }
    if (X509_cmp_current_time(X509_get0_notAfter(SSL_CTX_get0_certificate(context))) < 0) {
        log.warning(what + " " + settings.certificateFile + ": has expired");
    }
    const Key key = readKey(settings);
    if (SSL_CTX_use_PrivateKey(context, key.get()) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
        refuseFile(settings.origin + "private key", settings.keyFile,
                   "does not fit the certificate " + settings.certificateFile);
    }
}

// A text that is another one when any of the files has changed.
std::string stampOfFiles(const std::vector<std::string>& files) {
    std::string stamp;
    for (const std::string& name : files) {
        const fs::path file = paths::forStandardLibrary(name);
        std::error_code missing;
        const auto written = fs::last_write_time(file, missing).time_since_epoch().count();
        stamp += std::to_string(written) + ' ' + std::to_string(fs::file_size(file, missing)) + '|';
    }
    return stamp;
}

std::string stampOf(const Settings& settings) {
    return stampOfFiles({settings.keyFile, settings.certificateFile, settings.authorities,
                         settings.revocationFile});
}

void addAuthorities(X509_STORE* store, const Settings& settings) {
    if (settings.systemAuthorities) addSystemAuthorities(store);
    if (settings.authorities.empty()) return;
    const std::string what = settings.origin + "authorities";
    checkReadable(what, settings.authorities);
    const bool folder = fs::is_directory(paths::forStandardLibrary(settings.authorities));
    const char* const path = settings.authorities.c_str();
    if (X509_STORE_load_locations(store, folder ? nullptr : path, folder ? path : nullptr) != 1) {
        refuseFile(what, settings.authorities, opensslReason());
    }
}

void addRevocations(X509_STORE* store, const Settings& settings) {
    if (settings.revocationFile.empty()) return;
    const std::string what = settings.origin + "crlFile";
    checkReadable(what, settings.revocationFile);
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
    if (!lookup ||
        X509_load_crl_file(lookup, settings.revocationFile.c_str(), X509_FILETYPE_PEM) < 1) {
        refuseFile(what, settings.revocationFile, opensslReason());
    }
}

// Reading the system's authorities takes ten times as long as a handshake. What has been read is
// therefore kept until the files change: at most kMost stores at a time.
class KnownStores {
public:
    std::shared_ptr<X509_STORE> storeFor(const Settings& settings) {
        const std::string key = settings.authorities + '|' + settings.revocationFile + '|' +
                                (settings.systemAuthorities ? systemStamp() : "") + '|' +
                                stampOfFiles({settings.authorities, settings.revocationFile});
        const std::lock_guard<std::mutex> lock(_mutex);
        const auto known = _stores.find(key);
        if (known != _stores.end()) return known->second;
        auto store = readStore(settings);
        if (_stores.size() == kMost) _stores.clear();
        _stores.emplace(key, store);
        return store;
    }

private:
    static constexpr std::size_t kMost = 8;

    static std::string systemStamp() {
        return stampOfFiles({X509_get_default_cert_file(), X509_get_default_cert_dir()});
    }

    static std::shared_ptr<X509_STORE> readStore(const Settings& settings) {
        std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
        if (!store) throw std::bad_alloc();
        addAuthorities(store.get(), settings);
        addRevocations(store.get(), settings);
        return store;
    }

    std::mutex _mutex;
    std::map<std::string, std::shared_ptr<X509_STORE>> _stores;  // guarded by _mutex
};

void useAuthorities(SSL_CTX* context, const Settings& settings) {
    static NeverDestroyed<KnownStores> known;
    SSL_CTX_set1_cert_store(context, known->storeFor(settings).get());
    if (!settings.revocationFile.empty()) {
        X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(context), X509_V_FLAG_CRL_CHECK);
    }
    // A server tells its clients from which authorities their certificates may come.
    if (settings.server && fs::is_regular_file(paths::forStandardLibrary(settings.authorities))) {
        SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(settings.authorities.c_str()));
    }
}

void useProtocols(SSL_CTX* context, const Settings& settings) {
    SSL_CTX_set_min_proto_version(context, settings.tls13Only ? TLS1_3_VERSION : TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    if (settings.withoutTls12) SSL_CTX_set_options(context, SSL_OP_NO_TLSv1_2);
    if (settings.withoutTls13) SSL_CTX_set_options(context, SSL_OP_NO_TLSv1_3);
    const std::string ciphers = settings.cipherList.empty() ? "DEFAULT" : settings.cipherList;
    if (SSL_CTX_set_cipher_list(context, ciphers.c_str()) != 1) {
        throw Poco::InvalidArgumentException(settings.origin + "cipherList", opensslReason());
    }
}

// A certificate lists IP addresses apart from names, and OpenSSL compares each with its own list.
void expectServer(SSL_CTX* context, const std::string& name) {
    X509_VERIFY_PARAM* const expected = SSL_CTX_get0_param(context);
    Poco::Net::IPAddress address;
    if (Poco::Net::IPAddress::tryParse(name, address)) {
        X509_VERIFY_PARAM_set1_ip_asc(expected, name.c_str());
    } else {
        X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        X509_VERIFY_PARAM_set1_host(expected, name.c_str(), name.size());
    }
}

Context::InvalidCertificateHandlerPtr certificateHandler(const Settings& settings) {
    if (settings.certificateHandler == "RejectCertificateHandler") {
        return new Poco::Net::RejectCertificateHandler(settings.server);
    }
    if (settings.certificateHandler == kShippedCertificateHandler) {
        return new Poco::Net::AcceptCertificateHandler(settings.server);
    }
    auto& handlers = SSLManager::instance().certificateHandlerFactoryMgr();
    if (!handlers.hasFactory(settings.certificateHandler)) {
        throw Poco::InvalidArgumentException(settings.origin + "invalidCertificateHandler.name",
                                             "no such handler: " + settings.certificateHandler);
    }
    return handlers.getFactory(settings.certificateHandler)->create(settings.server);
}

// POCO up to 1.14 uses a Diffie-Hellman group of 1024 bits, which is too small, unless told not to.
template <typename Params>
void askForLargeGroup(Params& params) {
    if constexpr (requires { params.dhUse2048Bits; }) params.dhUse2048Bits = true;
}

Context::Ptr emptyContext(const Settings& settings) {
    Context::Params params;
    params.verificationMode = settings.verification;
    params.verificationDepth = settings.verificationDepth;
    params.dhParamsFile = settings.dhParamsFile;
    params.ecdhCurve = settings.ecdhCurve;
    askForLargeGroup(params);
    const auto usage = settings.server ? Context::TLS_SERVER_USE : Context::TLS_CLIENT_USE;
    return new Context(usage, params);
}

void useSessions(Context& context, const Settings& settings) {
    if (!settings.server) return;
    context.enableSessionCache(settings.cacheSessions, settings.sessionIdContext);
    if (!settings.cacheSessions) context.disableStatelessSessionResumption();
    if (settings.sessionCacheSize) {
        context.setSessionCacheSize(static_cast<std::size_t>(*settings.sessionCacheSize));
    }
    if (settings.sessionTimeout) context.setSessionTimeout(*settings.sessionTimeout);
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
    // Most clients close an idle connection without TLS's closing record, which is no error.
    SSL_CTX_set_options(context.sslContext(), SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
}

constexpr const char* kClosed = "the connection was closed in the handshake";

// OpenSSL's reason, in plainer words where its own do not help.
std::string plainWords(const std::string& reason) {
    if (reason == "unexpected eof while reading") return kClosed;
    if (reason == "http request") return "plain HTTP instead of TLS";
    if (reason == "wrong version number") return "no TLS, or none that is spoken here";
    return reason;
}

}  // namespace

Context::Ptr makeContext(const Settings& settings, const std::string& serverName) {
    beginTls();
    Context::Ptr context = emptyContext(settings);
    SSL_CTX* const ssl = context->sslContext();
    useProtocols(ssl, settings);
    useKeyAndCertificate(ssl, settings);
    useAuthorities(ssl, settings);
    if (settings.checkName && !serverName.empty()) expectServer(ssl, serverName);
    SSL_CTX_set_cert_verify_callback(ssl, &verifyChain, nullptr);
    context->setInvalidCertificateHandler(certificateHandler(settings));
    context->enableExtendedCertificateVerification(settings.verifyClientName);
    if (settings.preferServerCiphers) context->preferServerCiphers();
    useSessions(*context, settings);
    return context;
}

void beginTls() noexcept {
    ERR_clear_error();
    refusal.error = X509_V_OK;
    errno = 0;
}

std::string failureReason(const Poco::Exception& exc) {
    if (refusal.error != X509_V_OK) {
        return std::string(X509_verify_cert_error_string(refusal.error)) + " (" + refusal.subject +
               ")";
    }
    if (dynamic_cast<const Poco::TimeoutException*>(&exc))
        return "the peer stopped in the handshake";
    if (dynamic_cast<const Poco::Net::SSLConnectionUnexpectedlyClosedException*>(&exc)) {
        return kClosed;
    }
    // POCO hands on OpenSSL's text: "error:<number>:<library>::<reason>".
    const std::string text = exc.message();
    if (text.compare(0, 6, "error:") != 0) return exc.displayText();
    return plainWords(text.substr(text.rfind(':') + 1));
}

RenewedContext::RenewedContext(Settings settings)
    : _settings(std::move(settings)),
      _stamp(stampOf(_settings)),
      _context(makeContext(_settings)) {}

Context::Ptr RenewedContext::current() {
    const std::lock_guard<std::mutex> lock(_mutex);
    const std::string stamp = stampOf(_settings);
    if (stamp == _stamp) return _context;
    _stamp = stamp;
    try {
        _context = makeContext(_settings);
        log.information(_settings.origin + "*: changed files are in use, " +
                        _settings.certificateFile);
    } catch (const std::exception& exc) {
        log.error("changed files cannot be used, the previous ones stay in use: " +
                  exceptionText(exc));
    }
    return _context;
}

}  // namespace kel::tls
