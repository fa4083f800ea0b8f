#include "support/Fatal.h"

#include <Quarn/base/Exception.h>

#include <gtest/gtest.h>

namespace testing_support {

std::string fatalText( const std::function<void()>& body ) {
   try {
      body();
   } catch( const Quarn::AssertException& e ) {
      return e.what();
   }
   ADD_FAILURE() << "no assertion was raised";
   return {};
}

} // namespace testing_support
