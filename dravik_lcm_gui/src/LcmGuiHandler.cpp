#include "LcmGuiHandler.h"

#include <string>
#include <utility>
#include <vector>

#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/logger.h"

namespace dravik::lcmgui {

using ipc::messages::BaseMessage;
using ipc::messages::BaseRequestMessage;
using ipc::messages::BaseResponseMessage;
using ipc::messages::ShowGui;
using ipc::messages::ShowSimpleScreen;
using variant::Variant;

namespace {

// Serves `request` as an object of the class its function names: the value is
// moved into a `Message` (so that class's normalisation rules apply, e.g. the
// brightness clamp of both display requests) and moved back afterwards.
template <typename Message, typename Serve>
bool serveAs(BaseRequestMessage& request, Serve serve) {
    Message typed(std::move(static_cast<Variant&>(request)));
    const bool result = serve(typed);
    static_cast<Variant&>(request) = std::move(static_cast<Variant&>(typed));
    return result;
}

bool serveShowSimpleScreen(LcmGui& gui, BaseRequestMessage& request, bool /*responseExpected*/,
                           Variant& /*payload*/) {
    return serveAs<ShowSimpleScreen>(
        request, [&gui](ShowSimpleScreen& typed) { return gui.showSimpleScreen(typed); });
}

// The payload is only offered when a response is expected; showGui fills it
// with the screen now shown and the brightness.
bool serveShowGui(LcmGui& gui, BaseRequestMessage& request, bool responseExpected,
                  Variant& payload) {
    ShowGui payloadView(std::move(payload));
    ShowGui* offered = responseExpected ? &payloadView : nullptr;
    const bool result = serveAs<ShowGui>(
        request, [&gui, offered](ShowGui& typed) { return gui.showGui(typed, offered); });
    payload = std::move(static_cast<Variant&>(payloadView));
    if (!responseExpected) {
        payload.Free();
    }
    return result;
}

// The functions served, in the order in which they are registered: each name
// and the engine operation behind it.
struct Operation {
    const char* name;
    bool (*serve)(LcmGui& gui, BaseRequestMessage& request, bool responseExpected,
                  Variant& payload);
};

constexpr Operation kOperations[] = {
    {"ShowSimpleScreen", serveShowSimpleScreen},
    {"ShowGui", serveShowGui},
};

const Operation* operationFor(const std::string& functionName) {
    for (const Operation& operation : kOperations) {
        if (functionName == operation.name) {
            return &operation;
        }
    }
    return nullptr;
}

}  // namespace

LcmGuiHandler::LcmGuiHandler(LcmGui& gui) : BaseHandler("LcmGuiHandler"), gui(gui) {}

LcmGuiHandler::~LcmGuiHandler() = default;

std::vector<std::string> LcmGuiHandler::functionNames() {
    std::vector<std::string> names;
    for (const Operation& operation : kOperations) {
        names.emplace_back(operation.name);
    }
    return names;
}

void LcmGuiHandler::MessageSentSuccessfully(BaseMessage& /*message*/, bool& /*flag*/) {}

bool LcmGuiHandler::HandleResponse(BaseRequestMessage& /*request*/,
                                   BaseResponseMessage& /*response*/, bool& /*flag*/) {
    return true;  // the daemon sends no requests, so no response is ever awaited
}

bool LcmGuiHandler::HandleRequest(BaseRequestMessage& request, bool& /*flag*/) {
    Variant payload;
    const bool responseExpected = request.responseExpected();
    const Operation* operation = operationFor(request.functionName());
    if (operation == nullptr) {
        DRAVIK_LOG(logger::kError, 0, "Invalid function name %s", request.functionName().c_str());
        return false;
    }
    const bool result = operation->serve(gui, request, responseExpected, payload);

    if (!request.responseExpected()) {
        return true;
    }
    BaseResponseMessage response;
    response.statusCode(result ? 0 : 1);
    response.payload(payload);
    if (Ipc* endpoint = Endpoint()) {
        (void)endpoint->SendResponse(request, response);  // a lost response is the caller's timeout
    }
    return true;
}

}  // namespace dravik::lcmgui
