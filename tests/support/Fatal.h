// Helpers for tests of misuse.
//
//     EXPECT_FATAL( task.taskQuantumIs( 0ns ), "Quantum: 0ns" );
//
// checks that the statement ends in an assertion whose message holds the text; the file and line
// in front of the text are not compared.

#pragma once

#include <functional>
#include <string>

namespace testing_support {

// Runs `body` and returns the message of the assertion it ended in.
//
// Errors: a failure of the running test, and an empty string, when it ended in any other way.
std::string fatalText( const std::function<void()>& body );

} // namespace testing_support

#define EXPECT_FATAL( statement, text ) \
   EXPECT_THAT( testing_support::fatalText( [ & ] { statement; } ), ::testing::HasSubstr( text ) )
