// The page that `orvanta serve` gives to browsers: page.html, embedded by the build.
#pragma once

namespace tools {

extern const char kPage[];

}  // namespace tools
