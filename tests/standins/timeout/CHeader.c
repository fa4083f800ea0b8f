// The header read by a C compiler: a record embedded and driven as a C program does.
#include <timeout.h>

_Static_assert( sizeof( void* ) != 8 || sizeof( struct timeout ) == 40, "five fields" );

int expireOneFromC( void );

// The number of records that expire at tick 10 out of one due then and one due later.
int expireOneFromC( void ) {
   int error = 0;
   struct timeouts* wheel = timeouts_open( 1, &error );
   if( !wheel ) {
      return -error;
   }
   struct timeout due;
   struct timeout later;
   timeouts_add( wheel, timeout_init( &due, TIMEOUT_ABS ), 10 );
   timeouts_add( wheel, timeout_init( &later, 0 ), 11 );
   timeouts_update( wheel, 10 );
   int count = 0;
   while( timeouts_get( wheel ) ) {
      ++count;
   }
   bool good = timeouts_check( wheel, NULL );
   timeouts_close( wheel );
   return good ? count : -1;
}
