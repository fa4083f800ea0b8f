// Marks what libQuarn.so exports; everything else keeps the hidden visibility of the build.

#pragma once

// Goes before a function or variable and between `class` and the name of a class. Classes that are
// thrown, and templates with static data, need it too: without it each library that names them has
// a type or an object of its own.
#define QUARN_BASE_API __attribute__( ( visibility( "default" ) ) )
