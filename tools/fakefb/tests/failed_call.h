#pragma once

// A call that answers -1 and leaves its reason in errno, checked as one pair so
// that a failure shows both: EXPECT_EQ(resultAndErrno([&] { return open(...); }),
// failedWith(ENOENT)).

#include <cerrno>
#include <utility>

// Runs `call` with errno cleared; what it answered and the errno it left.
template <typename Call>
std::pair<int, int> resultAndErrno(Call call) {
    errno = 0;
    const int result = call();
    return {result, errno};
}

// The pair of a call that failed with `error`.
inline std::pair<int, int> failedWith(int error) {
    return {-1, error};
}
