#pragma once

#include <Poco/Net/HTTPResponse.h>
#include <Poco/SharedPtr.h>

#include <functional>
#include <istream>
#include <memory>
#include <string>

#include "Export.h"

namespace Poco::Net {
class HTMLForm;
}

namespace kel {

class ThreadPool;

/// Sends one-shot HTTP/1.1 requests: one connection each, at most 2 s to connect once the name is
/// resolved, 10 s for a TLS handshake, and 10 s for each send and receive. A request as a whole has
/// no bound: a peer that sends a byte every few seconds keeps it, and its thread, for as long as it
/// goes on.
///
/// An "https" URL is requested over TLS 1.2 or later, from a server whose certificate fits its name
/// and comes from an authority of the system's or of the setting "openSSL.client.caConfig" (all
/// keys: docs/tls.md). In a library that was built without TLS it fails.
///
/// Errors: what goes wrong with a request (a URL that does not parse, a certificate that does not
/// fit, an unreachable or silent server, a reply that is no HTTP, a Poco::Exception out of the
/// callback) is one error line in the log and a call of the callback with status 400 and an empty
/// stream. A callback that throws while it handles a reply is therefore called a second time.
/// Replies of any status, 404 and 500 included, are handed on as they came. Threads: all operations
/// may be called from any thread. A client may be released while its requests run. stopLibrary()
/// gives requests under way 5 s and cuts them off then; the next request works as the first did.
/// A log shows of a URL no user information, and no query values whose names look like those of
/// secrets.
class KEL_API HttpClient {
public:
    /// Status and body of the reply. The stream reads straight from the connection and is valid
    /// during the call only.
    using ResponseCallback =
        std::function<void(Poco::Net::HTTPResponse::HTTPStatus, std::istream&)>;

    /// A new client. All clients share the threads of ThreadPool::defaultPool().
    static std::shared_ptr<HttpClient> createInstance();

    /// The client that the whole process shares. It is never replaced.
    static std::shared_ptr<HttpClient> defaultHttpClient();

    ~HttpClient();

    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// POSTs `body` as "application/json" on a thread of ThreadPool::defaultPool(), which also
    /// runs the callback; returns as soon as a thread has it.
    /// @param callback  may be empty: the reply is dropped. After a failure an empty one is logged
    ///                  by the pool as a bad function call.
    /// @throws Poco::NoThreadAvailableException  32 requests are running; nothing is sent and the
    ///         callback is not called.
    void doHttpRequest(std::string url, std::string body, ResponseCallback callback);

    /// As above; POSTs `form` in its own encoding. The form is not copied: keep it alive and
    /// unchanged until the callback has been called.
    void doHttpRequest(std::string url, Poco::Net::HTMLForm& form, ResponseCallback callback);

    /// As above; GETs `url`.
    void doHttpRequest(std::string url, ResponseCallback callback);

    /// POSTs `body` as "application/json" on the calling thread; returns after the callback has.
    /// @throws std::bad_function_call  the request failed and `callback` is empty.
    /// What else the callback throws passes through, but for the first Poco::Exception.
    void doHttpRequestSync(std::string url, std::string body, ResponseCallback callback);

private:
    HttpClient();

    Poco::SharedPtr<ThreadPool> _thread_pool;  // runs no request, and so has no thread
};

}  // namespace kel
