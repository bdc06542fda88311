// What an IMA ADPCM stream carries from one code to the next.
#pragma once

// All zero before the first code. An index outside its range counts as the nearest end of it.
struct ADPCMState {
  int stepIndex;        // 0..88
  int predictedSample;  // -32768..32767
};
