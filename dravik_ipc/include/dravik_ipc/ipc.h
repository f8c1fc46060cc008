#pragma once

#include <memory>
#include <string>

namespace dravik::ipc::messages {
class BaseMessage;
class BaseRequestMessage;
class BaseResponseMessage;
}  // namespace dravik::ipc::messages

class Ipc;

// Tracks transactions of requests that this process sends. The endpoint keeps
// the pointer given to Init but sends no requests of its own, so it never
// calls it; null is accepted.
class TransactionsHandler {
public:
    virtual ~TransactionsHandler();
};

// Base of every request handler. The endpoint calls HandleRequest on the
// thread that runs Ipc::Service; the handler answers through Endpoint().
// The bool& arguments carry nothing from the endpoint: it passes false and
// ignores what the handler leaves in them.
class BaseHandler {
public:
    explicit BaseHandler(const std::string& name);
    virtual ~BaseHandler();
    BaseHandler(const BaseHandler&) = delete;
    BaseHandler& operator=(const BaseHandler&) = delete;

    virtual void MessageSentSuccessfully(dravik::ipc::messages::BaseMessage& message,
                                         bool& flag) = 0;
    virtual bool HandleResponse(dravik::ipc::messages::BaseRequestMessage& request,
                                dravik::ipc::messages::BaseResponseMessage& response,
                                bool& flag) = 0;
    virtual bool HandleRequest(dravik::ipc::messages::BaseRequestMessage& request, bool& flag) = 0;

    const std::string& Name() const { return name_; }
    // The endpoint that delivers this handler's requests: the singleton at
    // construction, then whichever endpoint registered the handler last.
    Ipc* Endpoint() const { return endpoint_; }
    void SetEndpoint(Ipc* endpoint) { endpoint_ = endpoint; }

private:
    std::string name_;
    Ipc* endpoint_;
};

// Answers every request that reaches it with the D-Bus error
// "dravik.ipc.Error.Rejected" naming the function. Registered under the empty
// function name, it refuses all the functions that the process does not serve.
class CatchAllHandlerRejector : public BaseHandler {
public:
    CatchAllHandlerRejector();
    ~CatchAllHandlerRejector() override;

    void MessageSentSuccessfully(dravik::ipc::messages::BaseMessage& message, bool& flag) override;
    bool HandleResponse(dravik::ipc::messages::BaseRequestMessage& request,
                        dravik::ipc::messages::BaseResponseMessage& response, bool& flag) override;
    bool HandleRequest(dravik::ipc::messages::BaseRequestMessage& request, bool& flag) override;
};

// The process's endpoint on the D-Bus system bus (or the session bus): it owns
// the well-known name "dravik.ipc.<name>" and serves the object
// "/dravik/ipc/<name>", interface "dravik.ipc.Endpoint", whose methods are the
// registered function names, each taking and returning one a{sv} object.
// Single-threaded: every call, and every handler call it makes, happens on the
// thread that calls Service.
class Ipc {
public:
    static constexpr const char* kInterface = "dravik.ipc.Endpoint";
    static constexpr const char* kErrorRejected = "dravik.ipc.Error.Rejected";
    static constexpr const char* kErrorNoResponse = "dravik.ipc.Error.NoResponse";
    static constexpr const char* kErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
    static constexpr const char* kErrorUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

    // The singleton, created on first use; never null.
    static Ipc* GetInstance();
    // Destroys the singleton: the connection is flushed and closed, which
    // gives up the bus name.
    static void FreeInstance();

    Ipc(const Ipc&) = delete;
    Ipc& operator=(const Ipc&) = delete;

    // Connects to the system bus (sessionBus false; DBUS_SYSTEM_BUS_ADDRESS is
    // honoured) or the user's session bus, serves the object path and takes
    // the well-known name without queueing: false if another connection owns
    // it, if the bus cannot be reached, or if already initialised.
    [[nodiscard]] bool Init(const std::string& name, bool sessionBus,
                            TransactionsHandler* transactions);

    // Routes requests for `functionName` to `handler` (not owned; it must
    // outlive every Service call) and makes it the handler's endpoint. The
    // empty name catches every function that has no handler of its own. Names
    // must be D-Bus member names, [A-Za-z_][A-Za-z0-9_]*; matching is exact.
    bool AddHandler(const std::string& functionName, BaseHandler* handler);
    // Forgets every registration of `handler` (its destructor calls this).
    void RemoveHandler(const BaseHandler* handler);

    // Dispatches what has arrived; if nothing was, waits at most `ms`
    // milliseconds (negative: no wait) for traffic and dispatches that.
    // Returns right after a dispatch. False only when the connection failed.
    [[nodiscard]] bool Service(int ms);

    // Answers the call being dispatched with `response`, normalised, its
    // "requestId" set to the request's "id" and "to" to the caller. A call
    // that expects no reply gets nothing, and the result is true. Only valid
    // inside HandleRequest, once per call.
    bool SendResponse(dravik::ipc::messages::BaseRequestMessage& request,
                      dravik::ipc::messages::BaseResponseMessage& response);
    // Answers the call being dispatched with a D-Bus error instead.
    bool SendError(dravik::ipc::messages::BaseRequestMessage& request, const std::string& errorName,
                   const std::string& message);

    // The name given to Init ("" before), and the names derived from it.
    const std::string& Name() const;
    std::string BusName() const;
    std::string ObjectPath() const;

    // "dravik.ipc." + name and "/dravik/ipc/" + name, each character outside
    // [A-Za-z0-9_] replaced by '_'.
    static std::string BusNameFor(const std::string& name);
    static std::string ObjectPathFor(const std::string& name);
    static bool IsValidFunctionName(const std::string& functionName);

private:
    Ipc();
    ~Ipc();

    struct Impl;
    std::unique_ptr<Impl> impl_;
};
