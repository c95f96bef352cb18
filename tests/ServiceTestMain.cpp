// The main of the suites of the service library: the registry learns the service classes before
// any test runs, as it does first thing in norvaned's main.
#include <gtest/gtest.h>

#include "FWClassFactory.h"

int main(int argc, char** argv) {
  RegisterServiceClasses();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
