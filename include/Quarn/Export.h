// Marks what the shared library offers; everything else has hidden visibility.

#pragma once

#define ORUQUARN_API __attribute__( ( visibility( "default" ) ) )
