// Variant containers: subscripts, key chains, iteration, copies, moves, equality and
// the release of deep trees.
#include "dravik_variant/variant.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using dravik::variant::Variant;
using dravik::variant::VariantType;
namespace vt = dravik::variant;

TEST(Variant, subscript_creates_a_missing_key_as_null) {
    Variant v = Variant::MakeContainer(vt::kObject);
    Variant& created = v["absent"];
    EXPECT_EQ(created.Type(), vt::kNull);
    ASSERT_NE(v.Find("absent"), nullptr);
    EXPECT_EQ(v.StringKeysCount(), 1u);
}

TEST(Variant, subscript_makes_a_scalar_a_container) {
    Variant byName("text");
    byName["key"] = 1;
    EXPECT_EQ(byName.Type(), vt::kObject);
    EXPECT_EQ(byName.StringKeysCount(), 1u);

    Variant byIndex(5);
    byIndex[0] = "first";
    byIndex[size_t{1}] = "second";
    EXPECT_EQ(byIndex.Type(), vt::kArray);
    EXPECT_EQ(byIndex.NumericKeysCount(), 2u);
    EXPECT_EQ(byIndex[int64_t{0}].AsString(), "first");

    Variant null;
    null[std::string("k")] = true;
    EXPECT_EQ(null.Type(), vt::kObject);
}

TEST(Variant, subscript_keeps_an_existing_container_kind) {
    Variant array = Variant::MakeContainer(vt::kArray);
    array["name"] = 1;
    EXPECT_EQ(array.Type(), vt::kArray);
    EXPECT_EQ(array.StringKeysCount(), 1u);
    Variant object = Variant::MakeContainer(vt::kObject);
    object[3] = 1;
    EXPECT_EQ(object.Type(), vt::kObject);
    EXPECT_EQ(object.NumericKeysCount(), 1u);
}

TEST(Variant, make_container_of_a_scalar_tag_is_null) {
    EXPECT_EQ(Variant::MakeContainer(vt::kObject).Type(), vt::kObject);
    EXPECT_EQ(Variant::MakeContainer(vt::kArray).Type(), vt::kArray);
    EXPECT_EQ(Variant::MakeContainer(vt::kString).Type(), vt::kNull);
}

Variant sampleResult() {
    Variant result;
    result["parameters"]["device"] = "/dev/fb0";
    result["parameters"]["brightness"] = 80;
    result["parameters"]["help"] = true;
    result["screens"][0]["name"] = "boot";
    result["screens"][1]["name"] = "idle";
    result["when"] = timeval{1, 2};
    result["ratio"] = 0.25;
    return result;
}

TEST(GetKeyChain, without_parameters_yields_null) {
    Variant result;
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "parameters/help", false), nullptr);
    result["other"] = 1;
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "parameters/help", false), nullptr);
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "parameters/help", true), nullptr);
}

TEST(GetKeyChain, never_creates_keys) {
    Variant result = Variant::MakeContainer(vt::kObject);
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "parameters/help", false), nullptr);
    EXPECT_EQ(result.StringKeysCount(), 0u);
    EXPECT_EQ(result.Find("parameters"), nullptr);

    Variant scalar(3);
    EXPECT_EQ(scalar.GetKeyChain(vt::kAny, "a", false), nullptr);
    EXPECT_EQ(scalar.Type(), vt::kInt32);
}

TEST(GetKeyChain, pattern_selects_the_types_it_accepts) {
    Variant result = sampleResult();
    struct Row {
        const char* path;
        VariantType pattern;
        bool found;
    } rows[] = {
        {"parameters/device", vt::kString, true},
        {"parameters/brightness", vt::kString, false},
        {"parameters/brightness", vt::kNumericPattern, true},
        {"parameters/brightness", vt::kIntegerBit, true},
        {"parameters/help", vt::kNumericPattern, false},
        {"parameters/help", vt::kAny, true},
        {"parameters/help", vt::kBool, true},
        {"parameters", vt::kObject, true},
        {"screens", vt::kObject, true},  // the array tag has every object bit
        {"screens", vt::kArray, true},
        {"parameters", vt::kArray, false},
        {"when", vt::kTime, true},
        {"when", vt::kString, false},
        {"parameters/device", vt::kTime, false},
        {"ratio", vt::kNumericPattern, false},
        {"ratio", vt::kIntegerBit, false},
        {"ratio", vt::kDouble, true},
        {"ratio", vt::kAny, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.path) + " " + std::to_string(row.pattern));
        EXPECT_EQ(result.GetKeyChain(row.pattern, row.path, false) != nullptr, row.found);
    }
    EXPECT_EQ(result.GetKeyChain(vt::kString, "parameters/device", false)->AsString(), "/dev/fb0");
}

TEST(GetKeyChain, numeric_steps_address_array_elements) {
    Variant result = sampleResult();
    const Variant* name = result.GetKeyChain(vt::kString, "screens/1/name", false);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name->AsString(), "idle");
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "screens/2/name", false), nullptr);
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "screens/x/name", false), nullptr);

    Variant object;
    object["7"] = "by text";
    const Variant* step = object.GetKeyChain(vt::kString, "7", false);
    ASSERT_NE(step, nullptr);
    EXPECT_EQ(step->AsString(), "by text");
}

TEST(GetKeyChain, empty_steps_are_skipped_only_when_asked) {
    Variant result = sampleResult();
    const char* paths[] = {"/parameters/help", "parameters//help", "parameters/help/"};
    for (const char* path : paths) {
        SCOPED_TRACE(path);
        EXPECT_NE(result.GetKeyChain(vt::kAny, path, true), nullptr);
        EXPECT_EQ(result.GetKeyChain(vt::kAny, path, false), nullptr);
    }
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "", true), &result);
    EXPECT_EQ(result.GetKeyChain(vt::kAny, "", false), nullptr);
    EXPECT_EQ(result.GetKeyChain(vt::kAny, nullptr, true), nullptr);
}

TEST(GetKeyChain, const_lookup_finds_the_same_value) {
    const Variant result = sampleResult();
    const Variant* device = result.GetKeyChain(vt::kString, "parameters/device", false);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->AsString(), "/dev/fb0");
}

TEST(Variant, json_null_member_is_present_with_the_null_tag) {
    Variant config;
    ASSERT_TRUE(config.FromJSONString(R"({"screens": null})"));
    const Variant* screens = config.GetKeyChain(vt::kAny, "screens", true);
    ASSERT_NE(screens, nullptr);
    EXPECT_EQ(screens->Type(), 0x8001);
    EXPECT_EQ(config.GetKeyChain(vt::kObject, "screens", true), nullptr);
}

TEST(Variant, is_array_reports_the_container_kind) {
    EXPECT_TRUE(Variant::MakeContainer(vt::kArray).IsArray());
    EXPECT_FALSE(Variant::MakeContainer(vt::kObject).IsArray());
    EXPECT_FALSE(Variant(1).IsArray());
    EXPECT_FALSE(Variant().IsArray());
}

TEST(Variant, is_array_makes_a_scalar_an_empty_container) {
    Variant toObject("text");
    toObject.IsArray(false);
    EXPECT_EQ(toObject.Type(), 0x1010);
    EXPECT_EQ(toObject.StringKeysCount(), 0u);
    EXPECT_EQ(toObject.AsString(), "");

    Variant toArray(5);
    toArray.IsArray(true);
    EXPECT_EQ(toArray.Type(), 0x1011);
    EXPECT_EQ(toArray.NumericKeysCount(), 0u);
}

TEST(Variant, is_array_on_a_container_changes_only_the_tag) {
    Variant v;
    v["a"] = 1;
    v[0] = 2;
    v.IsArray(true);
    EXPECT_EQ(v.Type(), vt::kArray);
    EXPECT_EQ(v.StringKeysCount(), 1u);
    EXPECT_EQ(v.NumericKeysCount(), 1u);
    v.IsArray(false);
    EXPECT_EQ(v.Type(), vt::kObject);
    EXPECT_EQ(static_cast<int>(v["a"]), 1);
}

TEST(Variant, free_releases_everything_and_leaves_null) {
    Variant v = sampleResult();
    v.Free();
    EXPECT_TRUE(v.IsNull());
    EXPECT_EQ(v.StringKeysCount(), 0u);
    EXPECT_EQ(v.GetKeyChain(vt::kAny, "parameters", true), nullptr);
    Variant text("x");
    text.Free();
    EXPECT_EQ(text.Type(), vt::kNull);
    EXPECT_EQ(text.AsString(), "");
}

TEST(Variant, numeric_keys_iterate_in_ascending_order) {
    Variant v = Variant::MakeContainer(vt::kArray);
    v[5] = "five";
    v[1] = "one";
    v[3] = "three";
    v[-2] = "minus two";
    EXPECT_EQ(v.NumericKeysCount(), 4u);
    std::vector<int64_t> keys;
    std::vector<std::string> values;
    for (auto it = v.num_begin(); it != v.num_end(); ++it) {
        keys.push_back(it->first);
        values.push_back(it->second.AsString());
    }
    EXPECT_EQ(keys, (std::vector<int64_t>{-2, 1, 3, 5}));
    EXPECT_EQ(values, (std::vector<std::string>{"minus two", "one", "three", "five"}));
}

TEST(Variant, string_keys_iterate_in_key_order) {
    Variant v;
    v["b"] = 2;
    v["a"] = 1;
    v["c"] = 3;
    std::string order;
    for (auto it = v.str_begin(); it != v.str_end(); ++it) {
        order += it->first;
    }
    EXPECT_EQ(order, "abc");
}

TEST(Variant, scalars_have_no_keys) {
    const Variant number(1);
    EXPECT_EQ(number.NumericKeysCount(), 0u);
    EXPECT_EQ(number.StringKeysCount(), 0u);
    EXPECT_EQ(number.num_begin(), number.num_end());
    EXPECT_EQ(number.str_begin(), number.str_end());
    Variant mutableNumber(2);
    EXPECT_EQ(mutableNumber.num_begin(), mutableNumber.num_end());
    EXPECT_EQ(mutableNumber.Find("a"), nullptr);
    EXPECT_EQ(mutableNumber.Find(int64_t{0}), nullptr);
}

TEST(Variant, erase_removes_a_string_key) {
    Variant v;
    v["a"] = 1;
    EXPECT_TRUE(v.Erase("a"));
    EXPECT_FALSE(v.Erase("a"));
    EXPECT_EQ(v.StringKeysCount(), 0u);
    Variant scalar(1);
    EXPECT_FALSE(scalar.Erase("a"));
}

TEST(Variant, copy_is_deep) {
    Variant original = sampleResult();
    Variant copy(original);
    copy["parameters"]["device"] = "/dev/changed";
    copy["screens"][0]["name"] = "changed";
    EXPECT_EQ(original["parameters"]["device"].AsString(), "/dev/fb0");
    EXPECT_EQ(original["screens"][0]["name"].AsString(), "boot");
    Variant assigned;
    assigned = original;
    EXPECT_TRUE(assigned == original);
    assigned["new"] = 1;
    EXPECT_EQ(original.Find("new"), nullptr);
}

// A moved-from Variant is documented to be null, so reading it is intended.
TEST(Variant, move_leaves_the_source_null) {
    Variant source = sampleResult();
    Variant target(std::move(source));
    EXPECT_TRUE(source.IsNull());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    EXPECT_EQ(target["parameters"]["brightness"].AsInt64(), 80);
    Variant assigned;
    assigned = std::move(target);
    EXPECT_TRUE(target.IsNull());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    EXPECT_EQ(assigned["parameters"]["brightness"].AsInt64(), 80);
}

TEST(Variant, assignment_from_own_child) {
    Variant v = sampleResult();
    v = v["parameters"];
    EXPECT_EQ(v.Type(), vt::kObject);
    EXPECT_EQ(v["device"].AsString(), "/dev/fb0");

    Variant w = sampleResult();
    w = std::move(w["screens"]);
    EXPECT_EQ(w.Type(), vt::kArray);
    EXPECT_EQ(w.NumericKeysCount(), 2u);
    EXPECT_EQ(w[1]["name"].AsString(), "idle");

    Variant self = sampleResult();
    const Variant& alias = self;
    self = alias;
    EXPECT_EQ(self["ratio"].AsDouble(), 0.25);
}

TEST(Variant, equality_compares_tags_and_content) {
    EXPECT_TRUE(Variant(1) == Variant(1));
    EXPECT_TRUE(Variant(1) != Variant(2));
    EXPECT_TRUE(Variant(1) != Variant(1L));
    EXPECT_TRUE(Variant("a") == Variant("a"));
    EXPECT_TRUE(Variant() == Variant());
    EXPECT_TRUE(sampleResult() == sampleResult());
    Variant changed = sampleResult();
    changed["screens"][1]["name"] = "other";
    EXPECT_TRUE(changed != sampleResult());
}

// A tree `depth` levels deep, each level the only element of the one above.
std::unique_ptr<Variant> deepTree(int depth) {
    auto root = std::make_unique<Variant>();
    Variant* node = root.get();
    for (int n = 0; n < depth; ++n) {
        node = &(*node)[0];
    }
    *node = "leaf";
    return root;
}

// Releases `tree` on a thread whose stack holds only `stackBytes`; true once
// the release has returned, false when the thread could not run.
bool releaseOnThreadWithStack(std::unique_ptr<Variant> tree, size_t stackBytes) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_t thread;
    const bool started = pthread_attr_setstacksize(&attributes, stackBytes) == 0 &&
                         pthread_create(
                             &thread, &attributes,
                             [](void* taken) -> void* {
                                 delete static_cast<Variant*>(taken);
                                 return nullptr;
                             },
                             tree.get()) == 0;
    (void)pthread_attr_destroy(&attributes);
    if (!started) {
        return false;
    }
    (void)tree.release();  // the thread owns it now
    return pthread_join(thread, nullptr) == 0;
}

TEST(Variant, very_deep_tree_is_released_on_a_small_stack) {
    // One stack frame per level would need megabytes for this tree and die of
    // a stack overflow on 256 KiB; the release runs in a child process, so such
    // a death is reported as the child's exit status.
    constexpr int kDepth = 200000;
    constexpr size_t kStackBytes = 256 * 1024;
    auto root = deepTree(kDepth);
    EXPECT_EQ(root->NumericKeysCount(), 1u);
    EXPECT_EXIT(
        {
            const bool released = releaseOnThreadWithStack(std::move(root), kStackBytes);
            std::fputs(released ? "tree released\n" : "no thread to release on\n", stderr);
            std::_Exit(released ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "tree released");
}

}  // namespace
