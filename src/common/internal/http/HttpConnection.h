#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/StreamSocket.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "GuardedSocket.h"
#include "Reply.h"
#include "ServerState.h"

namespace kel {

/// One client's connection: its requests, one after the other, and the callback's replies.
/// Threads: one at a time, but for what GuardedSocket allows.
class HttpConnection {
public:
    using Callback =
        std::function<void(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)>;

    HttpConnection(const Poco::Net::StreamSocket& accepted,
                   const std::shared_ptr<ServerState>& state,
                   Poco::AutoPtr<Poco::Net::HTTPServerParams> params, const Callback& callback);

    /// Serves requests until the connection ends, and closes it.
    /// What the callback and the network throw passes through, after the client has been told.
    void serve();

    GuardedSocket& socket() { return *_socket; }

private:
    bool awaitRequest();
    bool answer();
    bool conclude(Reply& reply);
    void refuse(int status);
    void prepare(Reply& reply, const Poco::Net::HTTPServerRequest& request);
    void call(Reply& reply, Poco::Net::HTTPServerRequest& request);
    void sendError(int status);
    const std::string& date();

    const std::shared_ptr<ServerState> _state;
    Poco::AutoPtr<Poco::Net::HTTPServerParams> _params;
    const Callback& _callback;
    Poco::AutoPtr<GuardedSocket> _socket;
    Poco::Net::HTTPServerSession _session;
    int _requests = 0;
    std::chrono::seconds _dateSecond{-1};
    std::string _date;
};

}  // namespace kel
