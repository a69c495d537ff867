// The error-class family as a whole: one class per component, all of one
// shape, none deriving from another.
#include <stdexcept>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "PniAccess.h"
#include "qelAccessControl.h"
#include "qelBladeInfo.h"
#include "qelCondQueue.h"
#include "qelConfSpaceData.h"
#include "qelIp.h"
#include "qelIpmi.h"
#include "qelIpmiWatchdog.h"
#include "qelSystemInfo.h"

namespace {

template <typename E>
class ErrorFamily : public testing::Test {};

using AllErrors = testing::Types<qelIpmi::QelIpmiError, qelIpmi::QelIpmiLanError,
                                 qelIpmi::QelIpmiWatchdogError, PniAccessError, qelIp::QelIpError,
                                 qelSystemInfo::QelSystemInfoError, QelConfSpaceDataError,
                                 QelCondQueueError, QelAccessControlError, QelBladeInfoError>;
TYPED_TEST_SUITE(ErrorFamily, AllErrors);

// The classes that keep the message as given in their three-argument form.
template <typename E>
constexpr bool keepsMessage =
    !std::is_same_v<E, qelIpmi::QelIpmiError> && !std::is_same_v<E, PniAccessError>;

template <typename E>
constexpr bool hasErrnoForm = std::is_constructible_v<E, std::string, std::string, unsigned int, int>;

}  // namespace

TYPED_TEST(ErrorFamily, DerivesDirectlyFromLogicErrorAndFromNoOtherErrorClass) {
    static_assert(std::is_base_of_v<std::logic_error, TypeParam>);
    static_assert(!std::is_base_of_v<qelIpmi::QelIpmiError, TypeParam> ||
                  std::is_same_v<qelIpmi::QelIpmiError, TypeParam>);
    static_assert(!std::is_base_of_v<PniAccessError, TypeParam> ||
                  std::is_same_v<PniAccessError, TypeParam>);
    static_assert(!std::is_base_of_v<QelConfSpaceDataError, TypeParam> ||
                  std::is_same_v<QelConfSpaceDataError, TypeParam>);
}

TYPED_TEST(ErrorFamily, CarriesFileLineAndText) {
    TypeParam e("m", "f", 1);
    EXPECT_EQ(e.fileName, "f");
    EXPECT_EQ(e.lineNumber, 1u);
    if constexpr (keepsMessage<TypeParam>) {
        EXPECT_EQ(e.errorText, "m");
        const std::exception& asStd = e;
        EXPECT_STREQ(asStd.what(), "");
    }
}

TYPED_TEST(ErrorFamily, CopyHasEqualMembers) {
    TypeParam original("some message", "someFile", 4711);
    TypeParam copy(original);
    EXPECT_EQ(copy.fileName, original.fileName);
    EXPECT_EQ(copy.lineNumber, original.lineNumber);
    EXPECT_EQ(copy.errorText, original.errorText);
    const std::exception& a = original;
    const std::exception& b = copy;
    EXPECT_STREQ(a.what(), b.what());
}

TYPED_TEST(ErrorFamily, CaughtByReferenceAsItsOwnType) {
    try {
        throw TypeParam("thrown", "f", 3);
    } catch (TypeParam& e) {
        EXPECT_EQ(e.lineNumber, 3u);
    }
}

TYPED_TEST(ErrorFamily, ErrnoFormOnlyWhereItBelongs) {
    constexpr bool expected = std::is_same_v<TypeParam, qelIpmi::QelIpmiError> ||
                              std::is_same_v<TypeParam, qelIp::QelIpError> ||
                              std::is_same_v<TypeParam, qelSystemInfo::QelSystemInfoError>;
    EXPECT_EQ(hasErrnoForm<TypeParam>, expected);
    if constexpr (hasErrnoForm<TypeParam>) {
        TypeParam e("abc", "f", 7, 5);
        EXPECT_EQ(e.errorText, "5bc");
        TypeParam longer("abc", "f", 7, 12345);
        EXPECT_EQ(longer.errorText, "12345");
        TypeParam negative("abcdef", "f", 7, -12);
        EXPECT_EQ(negative.errorText, "-12def");
        const std::exception& asStd = e;
        EXPECT_STREQ(asStd.what(), "");
    }
}

TEST(PniAccessErrorText, ComposesWithCommaAndBlank) {
    PniAccessError e("Format error ", "PniAccess", 640);
    EXPECT_EQ(e.errorText, "Error: Format error (PniAccess, 640)\n");
    const std::exception& asStd = e;
    EXPECT_STREQ(asStd.what(), "");
}

TEST(ErrorTextHelpers, ComposeHasNoBlankAroundParentheses) {
    EXPECT_EQ(qelError::composeText("x", "f", 7, ","), "Error: x(f,7)\n");
    EXPECT_EQ(qelError::composeText("", "", 0, ", "), "Error: (, 0)\n");
}

TEST(ErrorTextHelpers, NumberOverwritesFromTheStart) {
    EXPECT_EQ(qelError::overwriteWithNumber("reply message has wrong type: ", 4),
              "4eply message has wrong type: ");
    EXPECT_EQ(qelError::overwriteWithNumber("", 42), "42");
    EXPECT_EQ(qelError::overwriteWithNumber("ab", 0), "0b");
}
