// Random values of every shape, normalised as every message class.
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <string>

#include "dravik_ipc_messages/messages.h"
#include "dravik_utils/utils.h"
#include "message_expectations.h"
#include "message_keys.h"

namespace {

using dravik::variant::VariantType;
using namespace dravik::ipc::messages;
using namespace dravik::ipc::messages::test;

class RandomValues {
public:
    explicit RandomValues(uint64_t seed) : rng_(seed) {}

    size_t Below(size_t n) { return static_cast<size_t>(rng_() % n); }
    bool Chance(unsigned percent) { return Below(100) < percent; }

    Variant Any(int depth) {
        switch (Below(depth > 0 ? 12 : 10)) {
            case 0:
                return Variant();
            case 1:
                return Variant(Chance(50));
            case 2:
            case 3:
                return Integer();
            case 4:
                return Double();
            case 5:
            case 6:
                return String();
            case 7:
                return Time();
            case 8:
                return Word();
            case 9:
                return Variant(static_cast<long>(rng_()));
            case 10:
                return Container(dravik::variant::kObject, depth - 1);
            default:
                return Container(dravik::variant::kArray, depth - 1);
        }
    }

    // A message: mostly an object holding some of every class's keys with
    // random values, sometimes an array, sometimes no container at all.
    Variant Message() {
        if (Chance(5)) {
            return Any(0);
        }
        Variant message =
            Variant::MakeContainer(Chance(5) ? dravik::variant::kArray : dravik::variant::kObject);
        for (size_t i = 0; i < kKeyCount; ++i) {
            if (Chance(50)) {
                message[messageKeyOrExtra(i, kExtraKeys)] = Any(2);
            }
        }
        if (Chance(30)) {
            message[int64_t{0}] = Any(1);
        }
        return message;
    }

private:
    template <typename T>
    static Variant As(int64_t edge) {
        return Variant(static_cast<T>(edge));
    }

    Variant Integer() {
        static const int64_t kEdges[] = {0,
                                         1,
                                         -1,
                                         2,
                                         3,
                                         6,
                                         99,
                                         100,
                                         101,
                                         127,
                                         128,
                                         -128,
                                         -129,
                                         255,
                                         256,
                                         32767,
                                         32768,
                                         -32768,
                                         -32769,
                                         65535,
                                         65536,
                                         2147483647LL,
                                         2147483648LL,
                                         -2147483648LL,
                                         -2147483649LL,
                                         4294967295LL,
                                         4294967296LL,
                                         std::numeric_limits<int64_t>::max(),
                                         std::numeric_limits<int64_t>::min()};
        const int64_t edge = kEdges[Below(std::size(kEdges))];
        // The edge in each integer type a caller may pass, or near the top of
        // the widest one.
        static Variant (*const kAs[])(int64_t) = {
            &As<signed char>, &As<unsigned char>, &As<short>, &As<unsigned short>,
            &As<int>,         &As<unsigned int>,  &As<long>,  &As<unsigned long>};
        const size_t pick = Below(std::size(kAs) + 1);
        if (pick < std::size(kAs)) {
            return kAs[pick](edge);
        }
        return Variant(std::numeric_limits<unsigned long>::max() - Below(3));
    }

    Variant Double() {
        static const double kDoubles[] = {0.0,
                                          -0.5,
                                          99.9,
                                          1e300,
                                          -1e300,
                                          std::numeric_limits<double>::infinity(),
                                          std::numeric_limits<double>::quiet_NaN()};
        return Variant(kDoubles[Below(std::size(kDoubles))]);
    }

    Variant String() {
        const size_t length = Chance(1) ? 10000 : Below(12);
        std::string text(length, ' ');
        for (char& c : text) {
            c = static_cast<char>(Below(256));
        }
        return Variant(text);
    }

    // A word from the possible-value lists in random letter case.
    Variant Word() {
        static const char* const kWords[] = {
            "left",      "center",    "right",       "top",          "middle",  "bottom", "static",
            "slideshow", "breathing", "progressbar", "__response__", "ShowGui", "fade"};
        std::string word = kWords[Below(std::size(kWords))];
        for (char& c : word) {
            if (Chance(50)) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
        }
        return Variant(word);
    }

    Variant Time() {
        timeval value{static_cast<time_t>(rng_() % 4000000000ULL),
                      static_cast<suseconds_t>(Below(1000000))};
        return Variant(value);
    }

    Variant Container(VariantType type, int depth) {
        Variant container = Variant::MakeContainer(type);
        const size_t count = Below(4);
        for (size_t i = 0; i < count; ++i) {
            if (type == dravik::variant::kArray) {
                container[static_cast<int64_t>(i)] = Any(depth);
            } else {
                container[messageKeyOrExtra(Below(kKeyCount), kExtraKeys)] = Any(depth);
            }
        }
        return container;
    }

    // The declared keys and two that no class declares.
    static constexpr const char* kExtraKeys[] = {"junk", ""};
    static constexpr size_t kKeyCount = std::size(kMessageKeys) + std::size(kExtraKeys);

    std::mt19937_64 rng_;
};

TEST(MessageProperty, random_values_normalise_to_declared_fields_for_every_class) {
    constexpr int kMessages = 20000;
    RandomValues random(0x5eed2024);
    const timeval start = dravik::utils::now();
    for (int i = 0; i < kMessages && !::testing::Test::HasFailure(); ++i) {
        const Variant original = random.Message();
        for (const ClassCase& messageClass : AllClasses()) {
            const Variant result = messageClass.normalize(original);
            const TimeWindow window{start, dravik::utils::now()};
            if (::testing::Test::HasFailure()) {
                break;
            }
            SCOPED_TRACE("message " + std::to_string(i));
            ExpectNormalized(messageClass, original, result, window);
        }
    }
}

}  // namespace
