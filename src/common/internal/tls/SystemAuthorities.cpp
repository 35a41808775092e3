#include "SystemAuthorities.h"

#include <Poco/File.h>
#include <Poco/Net/SSLException.h>
#include <Poco/Path.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "../platform/Paths.h"
#include "../platform/Platform.h"
#include "../process/NeverDestroyed.h"
#include "Tls.h"

namespace kel::tls {

namespace {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

std::vector<std::string> trustedAuthorities() {
    try {
        return platform::trustedAuthorities();
    } catch (const std::system_error& exc) {
        throw Poco::Net::SSLException("the system's authorities", exc.what());
    }
}

Certificate certificateFrom(const std::string& der) {
    auto data = reinterpret_cast<const unsigned char*>(der.data());
    return {d2i_X509(nullptr, &data, static_cast<long>(der.size())), &X509_free};
}

std::string asPem(const std::vector<std::string>& certificates) {
    const Bio text(BIO_new(BIO_s_mem()), &BIO_free);
    if (!text) throw std::bad_alloc();
    for (const std::string& der : certificates) {
        const Certificate certificate = certificateFrom(der);
        if (certificate) PEM_write_bio_X509(text.get(), certificate.get());
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(text.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

// Hosts of one user and one name write the same.
std::string authoritiesFile() {
    Poco::Path file = paths::applicationDirectory(Poco::Path::dataHome());
    platform::createDirectories(file.toString());
    return file.setFileName(paths::executable().getBaseName() + "-authorities.pem").toString();
}

struct Written {
    std::mutex mutex;
    std::string content;  // guarded by mutex
};

}  // namespace

void addSystemAuthorities(X509_STORE* store) {
    const std::vector<std::string> authorities = trustedAuthorities();
    if (authorities.empty()) X509_STORE_set_default_paths(store);
    for (const std::string& der : authorities) {
        const Certificate certificate = certificateFrom(der);
        if (certificate) X509_STORE_add_cert(store, certificate.get());
    }
    ERR_clear_error();  // one that OpenSSL cannot read is none to trust
}

std::string systemAuthoritiesFile() {
    static NeverDestroyed<Written> written;
    const std::vector<std::string> authorities = trustedAuthorities();
    if (authorities.empty()) return {};
    const std::string content = asPem(authorities);
    std::string file = authoritiesFile();
    const std::lock_guard<std::mutex> lock(written->mutex);
    if (content != written->content || !Poco::File(file).exists()) {
        platform::replaceFileContent(file, content);
        written->content = content;
    }
    ERR_clear_error();
    return file;
}

}  // namespace kel::tls
