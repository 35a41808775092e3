#pragma once

#include <openssl/x509.h>

namespace kel::tls {

/// Adds the authorities that the system trusts: those of its own store where it has one, otherwise
/// those of OpenSSL's default file and folder.
/// @throws Poco::Net::SSLException  the system's store cannot be read.
void addSystemAuthorities(X509_STORE* store);

}  // namespace kel::tls
