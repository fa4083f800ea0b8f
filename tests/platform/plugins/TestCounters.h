// The counters plugin of these tests.

#pragma once

#include <Quarn/platform/Counters.h>

#include <string>
#include <utility>
#include <vector>

struct TestCounters final : Quarn::CountersPlugin {
   char const* pluginName() override { return "KestoCountersPlugin"; }
   void counterSetIs( char const* setName ) override { sets.emplace_back( setName ); }
   unsigned long* counter( char const* name, unsigned long* fallback ) override {
      asked.emplace_back( name, fallback );
      return &value;
   }

   std::vector<std::string> sets;
   std::vector<std::pair<std::string, unsigned long*>> asked;
   unsigned long value = 0;
};
