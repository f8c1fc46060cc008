#include "dravik_ipc/ipc.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/logger.h"
#include "dravik_utils/utils.h"

CatchAllHandlerRejector::CatchAllHandlerRejector() : BaseHandler("CatchAllHandlerRejector") {}

CatchAllHandlerRejector::~CatchAllHandlerRejector() = default;

void CatchAllHandlerRejector::MessageSentSuccessfully(
    dravik::ipc::messages::BaseMessage& /*message*/, bool& /*flag*/) {}

bool CatchAllHandlerRejector::HandleResponse(
    dravik::ipc::messages::BaseRequestMessage& /*request*/,
    dravik::ipc::messages::BaseResponseMessage& /*response*/, bool& /*flag*/) {
    return true;
}

bool CatchAllHandlerRejector::HandleRequest(dravik::ipc::messages::BaseRequestMessage& request,
                                            bool& /*flag*/) {
    Ipc* endpoint = Endpoint();
    const std::string functionName = request.functionName();
    DRAVIK_LOG(dravik::logger::kDebug, 0, "Rejecting a call of '%s' from %s", functionName.c_str(),
               request.from().c_str());
    const std::string message = dravik::utils::format(
        "Function '%s' is not served by %s", functionName.c_str(), endpoint->Name().c_str());
    return endpoint->SendError(request, Ipc::kErrorRejected, message);
}
