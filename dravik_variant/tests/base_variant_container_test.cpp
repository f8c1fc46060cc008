// BaseVariantContainer, the base of every message: its default and normalisation.
#include "dravik_variant/variant.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

using dravik::variant::BaseVariantContainer;
using dravik::variant::Variant;
namespace vt = dravik::variant;

TEST(BaseVariantContainer, default_is_an_empty_object) {
    BaseVariantContainer message;
    EXPECT_EQ(message.Type(), vt::kObject);
    EXPECT_EQ(message.StringKeysCount(), 0u);
}

TEST(BaseVariantContainer, normalize_makes_a_non_container_an_object) {
    struct Row {
        const char* what;
        Variant value;
    } rows[] = {{"null", Variant()}, {"string", Variant("x")}, {"number", Variant(3)}};
    for (Row& row : rows) {
        SCOPED_TRACE(row.what);
        BaseVariantContainer message(row.value);
        EXPECT_TRUE(message.NormalizeFields());
        EXPECT_EQ(message.Type(), vt::kObject);
        EXPECT_EQ(message.StringKeysCount(), 0u);
    }
}

TEST(BaseVariantContainer, normalize_keeps_containers_and_their_members) {
    Variant array = Variant::MakeContainer(vt::kArray);
    array[0] = 1;
    BaseVariantContainer fromArray(array);
    EXPECT_TRUE(fromArray.NormalizeFields());
    EXPECT_EQ(fromArray.Type(), vt::kArray);
    EXPECT_EQ(fromArray.NumericKeysCount(), 1u);

    Variant object;
    object["guiId"] = "boot";
    BaseVariantContainer fromObject(std::move(object));
    EXPECT_TRUE(fromObject.NormalizeFields());
    EXPECT_EQ(fromObject["guiId"].AsString(), "boot");
}

TEST(BaseVariantContainer, takes_variant_assignment) {
    BaseVariantContainer message;
    message = Variant("text");
    EXPECT_EQ(message.Type(), vt::kString);
    Variant holder;
    holder["payload"] = message;
    EXPECT_EQ(holder["payload"].AsString(), "text");
}

}  // namespace
