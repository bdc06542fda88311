// A width and a height.
#pragma once

struct tagSIZE {
  long cx = 0;  // pixels
  long cy = 0;
};
