#pragma once

// The keys that generated messages are made of, shared by the random-message
// test and the message fuzz target.

#include <cstddef>
#include <iterator>

namespace dravik::ipc::messages::test {

// Every key that some message class declares.
inline constexpr const char* kMessageKeys[] = {"id",
                                               "timeStamp",
                                               "from",
                                               "to",
                                               "functionName",
                                               "queueIfDestUnavailable",
                                               "responseExpected",
                                               "transactionId",
                                               "isBroadcast",
                                               "requestId",
                                               "statusCode",
                                               "payload",
                                               "brightness",
                                               "guiId",
                                               "text",
                                               "img",
                                               "x",
                                               "y",
                                               "alignHor",
                                               "alignVert",
                                               "file",
                                               "animation",
                                               "duration",
                                               "count",
                                               "size",
                                               "str"};

// Pick `i` of the message keys followed by `extras` (keys no class declares):
// i in 0 .. std::size(kMessageKeys) + N - 1.
template <std::size_t N>
const char* messageKeyOrExtra(std::size_t i, const char* const (&extras)[N]) {
    return i < std::size(kMessageKeys) ? kMessageKeys[i] : extras[i - std::size(kMessageKeys)];
}

}  // namespace dravik::ipc::messages::test
