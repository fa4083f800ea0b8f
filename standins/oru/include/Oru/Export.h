// Visibility of what liboru offers.

#pragma once

// Marks a class or function that other shared objects link to; everything else in liboru is hidden.
#define ORU_API __attribute__( ( visibility( "default" ) ) )
