// g711sim.h - the simulator's own G.711 coder (ITU-T A-law and u-law).
//
// The card simulator encodes its test tones with it, and the simulator's
// tests decode what the card delivered. It is the textbook segment coder
// (13-bit A-law, 14-bit u-law with bias 33 and the clip at 8159); it does
// not share code with the daemon, so a fault in one is not hidden by the
// same fault in the other. Pure functions, any thread.
#ifndef SIM_G711SIM_H
#define SIM_G711SIM_H

#include <cstdint>

uint8_t SimLinearToAlaw(int16_t pcm);
uint8_t SimLinearToUlaw(int16_t pcm);
int16_t SimAlawToLinear(uint8_t a);
int16_t SimUlawToLinear(uint8_t u);

// What a silent line gives in each law: A-law 213 (0xD5), u-law 255.
const uint8_t kAlawSilence = 0xD5;
const uint8_t kUlawSilence = 0xFF;

#endif
