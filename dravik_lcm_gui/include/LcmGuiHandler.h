#pragma once

#include <string>
#include <vector>

#include "LcmGui.h"
#include "dravik_ipc/ipc.h"

namespace dravik::lcmgui {

// The daemon's one request handler, registered for "ShowGui" and
// "ShowSimpleScreen": serves each request through the display engine and, when
// the caller waits for it, answers with "statusCode" 0 (done) or 1 (failed).
class LcmGuiHandler : public BaseHandler {
public:
    explicit LcmGuiHandler(LcmGui& gui);
    ~LcmGuiHandler() override;

    // The function names it serves, in the order in which main registers them.
    static std::vector<std::string> functionNames();

    void MessageSentSuccessfully(dravik::ipc::messages::BaseMessage& message, bool& flag) override;
    bool HandleResponse(dravik::ipc::messages::BaseRequestMessage& request,
                        dravik::ipc::messages::BaseResponseMessage& response, bool& flag) override;
    // False only for a function name it does not serve (no response is sent then).
    bool HandleRequest(dravik::ipc::messages::BaseRequestMessage& request, bool& flag) override;

private:
    LcmGui& gui;
};

}  // namespace dravik::lcmgui
