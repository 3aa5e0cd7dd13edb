// One HTTP(S) exchange: open, set headers, send a body, read the answer.
//
// Ownership: the caller owns the request (made by Platform::newHttpRequest) and uses it
// for one exchange; nothing of a connection outlives the object.
// Results: integer, 0 for success. open() gives 22 for an unusable URL or method;
// send() gives -1 for a local failure and otherwise the transport error mapped to
// socket-style numbers (10060 time-out, 10065 host not resolved, 10043 unsupported
// protocol, 1 login denied, 10061 cannot connect, 10054 connection aborted or reset).
// An HTTP status other than 200 is not a failure of send(): read it with status().
// Threading: a synchronous send runs on the caller's thread. An asynchronous send
// runs on a thread of its own and writes the response fields; read them only after
// the completion callback ran. abort() (also run by open() and the destructor) stops
// a running send and waits for its thread. Kept on purpose: the location client
// never sends asynchronously, but the exchange offers it as the transport always did.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace ZEL::SPI {

class XmlHttpRequest {
  public:
    enum Method { kGet = 0, kPost = 1, kHead = 2 };
    // Called at the end of an asynchronous send with its result and the context.
    using CompletionCallback = void (*)(int result, void* context);

    virtual ~XmlHttpRequest() = default;

    virtual void setCompletionCallback(CompletionCallback callback, void* context) = 0;

    // Opens through `proxy` (host, or host:port), appending ":" and `proxyPort` when
    // it is greater than 0, with `proxyUser` and `proxyPassword` for the proxy's basic
    // authentication (empty: none). Always returns 0: a URL that cannot be used makes
    // the send fail instead.
    virtual int open(int method, const std::string& url, const std::string& proxy, int proxyPort,
                     const std::string& proxyUser, const std::string& proxyPassword,
                     bool async) = 0;
    // Opens a direct exchange. 0, or 22 when the method or the URL is unusable.
    virtual int open(int method, const std::string& url, bool async) = 0;

    // Sets a request header; setting a name again replaces its earlier value.
    // Headers go out ordered by name (byte-wise).
    virtual void setRequestHeader(const std::string& name, const std::string& value) = 0;

    // Sends `length` bytes (not empty) as the request body and reads the whole answer.
    // An attempt that failed before any answer arrived is sent once more (after a
    // certificate error, without verifying the server certificate). An error answer
    // whose connection drops after its head still counts as that answer.
    // Asynchronous: 0 once the send started.
    virtual int send(const void* data, size_t length) = 0;

    // Stops a running send, then forgets the exchange: headers, bodies and status
    // text cleared, status -1, not opened.
    virtual void abort() = 0;

    // Each response header as "name: value\n", ordered by name; of a repeated header
    // the later value.
    virtual std::string getAllResponseHeaders() const = 0;
    // The response header's value, or empty.
    virtual std::string getResponseHeader(const std::string& name) const = 0;
    // The response body (empty when there was none); valid until the next open,
    // abort or the destruction. Returns 0.
    virtual int responseBody(std::string_view& body) const = 0;
    // The HTTP status code, -1 when unknown.
    virtual int status() const = 0;
    // The reason phrase of the status line, empty when unknown.
    virtual std::string statusText() const = 0;
};

}  // namespace ZEL::SPI
