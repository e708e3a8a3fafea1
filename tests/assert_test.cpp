#include "support.h"
#include "tessel/assert.h"

namespace {

TEST(Assert, ReportedFileNames) {
  using tessel::detail::reportedSourceName;
  EXPECT_EQ(reportedSourceName("/work/main/src/bignum/bignum.cpp"), "bignum.cpp");
  EXPECT_EQ(reportedSourceName("src/cipher/cbc.cpp"), "cbc.cpp");
  EXPECT_EQ(reportedSourceName("src/cbc.cpp"), "cbc.cpp");
  EXPECT_EQ(reportedSourceName("/work/main/include/tessel/blob.h"), "../include/tessel/blob.h");
  EXPECT_EQ(reportedSourceName("/a/src/x/include/tessel/gcm.h"), "../include/tessel/gcm.h");
  EXPECT_EQ(reportedSourceName("include/tessel/kernel.h"), "../include/tessel/kernel.h");
  EXPECT_EQ(reportedSourceName("other.cpp"), "other.cpp");
}

void checkSize(unsigned size) { TESSEL_ASSERT(size == 16); }

TEST(AssertDeathTest, PrintsConditionFileLineAndFunctionThenAborts) {
  checkSize(16);  // a true condition does nothing
  EXPECT_DEATH(checkSize(12), "assertion \"size == 16\" failed: file \".*assert_test.cpp\", line [0-9]+, function: checkSize");
}

}  // namespace
