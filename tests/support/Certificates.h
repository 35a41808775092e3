#pragma once

#include <string>

#include "Command.h"
#include "Sandbox.h"

/// An authority, root.pem, and what it issued, made by openssl. All but other.key belong together
/// with good.key; each is for "localhost" and 127.0.0.1 unless its name says otherwise:
///   good, expired, revoked (by crl.pem), elsewhere (another name), stranger (unknown authority),
///   chained (by mid, which is in the file too), truncated (the same without mid)
///   locked.key: good.key under kPassphrase; shipped.key: under that of the defaults
///   cut.pem: the first half of good.pem
class Certificates {
public:
    static constexpr const char* kPassphrase = "tell-nobody";

    Certificates() {
        shell("cd " + _folder.path.string() + R"(; set -e
ec="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
for name in root unknown; do
    openssl req -x509 $ec -days 2 -subj /CN=$name -keyout $name.key -out $name.pem
done
for name in good mid; do openssl req $ec -subj /CN=$name -keyout $name.key -out $name.csr; done
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out other.key
issue() { # name, request, issuer, serial, days, extension
    echo $6 >extension
    openssl x509 -req -in $2.csr -CA $3.pem -CAkey $3.key -set_serial $4 -days $5 \
        -extfile extension -out $1.pem
}
here=subjectAltName=DNS:localhost,IP:127.0.0.1
issue good good root 1 2 $here
issue expired good root 2 -1 $here
issue revoked good root 3 2 $here
issue elsewhere good root 4 2 subjectAltName=DNS:elsewhere.example,IP:127.0.0.9
issue stranger good unknown 5 2 $here
issue mid mid root 6 2 basicConstraints=critical,CA:TRUE
issue truncated good mid 7 2 $here
cat truncated.pem mid.pem >chained.pem
head -n 5 good.pem >cut.pem
openssl pkey -in good.key -aes256 -passout pass:tell-nobody -out locked.key
openssl pkey -in good.key -aes256 -passout pass:vellum -out shipped.key
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=index\ndefault_md=sha256\ndefault_crl_days=2\n' >cnf
: >index
for do in "-revoke revoked.pem" "-gencrl -out crl.pem"; do
    openssl ca -config cnf -keyfile root.key -cert root.pem $do
done
chmod a+r *)");
    }

    std::string operator[](const std::string& name) const { return _folder.path / name; }

private:
    const TempFolder _folder;
};
