#pragma once

/// Values that every configuration file has carried from its first start on, and that are not safe.
namespace kel::tls {

inline constexpr const char* kShippedVerification = "relaxed";
inline constexpr const char* kShippedCipherList = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH";
inline constexpr const char* kShippedPassphrase = "vellum";
inline constexpr const char* kShippedCertificateHandler = "AcceptCertificateHandler";

}  // namespace kel::tls
