// What the plugin libraries of these tests register.

#pragma once

#include <Quarn/debug/Loco.h>
#include <Quarn/platform/Plugin.h>

struct TestPlugin final : Quarn::Platform::Plugin {
   explicit TestPlugin( char const* name_ ) : name( name_ ) {}

   char const* pluginName() override {
      ++timesAsked;
      askedUnderTheLock = Quarn::Platform::Loco::owns_loco();
      return name;
   }

   char const* const name;
   int timesAsked = 0;
   bool askedUnderTheLock = false;
   // By the library's initialiser.
   Quarn::Platform::Plugin* loaded = nullptr;
};
