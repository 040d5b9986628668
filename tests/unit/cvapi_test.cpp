// CV-API function table search.
#include "functions/cvapi.h"

#include <gtest/gtest.h>

TEST(CvapiFunctionCode, FindsEveryRowWithoutRegardToCase) {
  EXPECT_EQ(0, cvapi_function_code("chmod"));
  EXPECT_EQ(1, cvapi_function_code("DirInfo"));
  EXPECT_EQ(2, cvapi_function_code("SLEEP"));
  EXPECT_EQ(3, cvapi_function_code("uptime"));
  EXPECT_EQ(-1, cvapi_function_code(""));
  EXPECT_EQ(-1, cvapi_function_code("chmo"));
  EXPECT_EQ(-1, cvapi_function_code("uptimes"));
}
