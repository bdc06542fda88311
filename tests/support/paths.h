// Where the tests find what they run and read.
#pragma once

#include <string>

namespace test {

// They are no macros, so that trees of one clone compile tests alike, and a compiler cache serves
// all.
const std::string& OrvantaBinary();
const std::string& DataFolder();     // tests/data
const std::string& ProjectFolder();  // the top of the tree

}  // namespace test
