/* shsim.h - in-process control of the card simulator, for tests.
 *
 * libshpa3.so of the simulator build exports these next to the card
 * operations. A test that links the library (through crec_core) uses them
 * to point the simulator at a temporary root, inject events and script the
 * driver's start without a control socket. The same commands as on the
 * control socket are reachable through shsim_command. All functions may be
 * called from any thread.
 */
#ifndef SHSIM_H
#define SHSIM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the simulator root (hardware.ini and control.sock lie below it).
 * Overrides SHSIM_ROOT and the compiled-in root. */
void shsim_set_root(const char* root);
/* Copies the root in force into buf (at most len bytes with the NUL). */
void shsim_get_root(char* buf, size_t len);

/* Back to a fresh process: the driver closed (SsmCloseCti, which also stops
 * every trace stream), the trace cycle on, no events,
 * empty call log, no scripted failures and their counters reset, step mode
 * off, no error text. The root stays. */
void shsim_reset(void);

/* Queues an event; len bytes of data (may be 0). Returns 0 when queued,
 * -1 when dropped (events not enabled, queue full, data over 4096 bytes). */
int shsim_inject_event(unsigned short code, int ref, unsigned int param, unsigned int subReason,
                       const void* data, unsigned int len);

/* Sets a channel's state and queues E_CHG_ChState for it. Returns 0 when
 * the event was queued, 1 when only the state was set (events not
 * enabled), -1 for a channel the driver doesn't have. */
int shsim_set_state(int ch, int state);

/* Scripts SsmStartCti: the next failFirst calls fail, and calls fail until
 * failSeconds after the first one. Overrides hardware.ini; counters restart. */
void shsim_script_start_failures(int failFirst, double failSeconds);

/* Step mode: SsmWaitForEventA returns -1 at once when nothing is queued,
 * and the simulator's clock is virtual: each such idle wait moves it on by
 * 200 ms (audio and events that fall due in that step are queued for the
 * next calls), and shsim_advance_clock moves it; nothing else does. */
void shsim_set_step_mode(int on);

/* Moves the simulator's clock forward by ms. The audio owed for that time
 * is written at the next SsmWaitForEventA, all at once: advancing by more
 * than a ring buffer holds, without taking events, is an overrun. */
void shsim_advance_clock(unsigned int ms);

/* The reproducible audio pattern: len bytes of the pattern of seed from
 * byte offset on. Byte i is the top 8 bits of output i+1 of SplitMix64
 * started at state seed. A channel's "pattern" source gives these bytes
 * from offset 0 on, counted from when the source was set. */
void shsim_pattern_bytes(unsigned long long seed, unsigned long long offset, unsigned char* buf, size_t len);

/* Audio of one channel since the driver started. */
struct shsim_audio_stats {
    unsigned long long delivered;     /* bytes written into recording buffers */
    unsigned long long reported;      /* bytes covered by progress events taken by the reader */
    unsigned long long events_queued; /* E_PROC_RecordMem events queued */
    unsigned long long events_taken;  /* ... and taken by SsmWaitForEventA */
    unsigned long long overruns;      /* writes that overwrote audio the reader never had */
    unsigned long long lost;          /* bytes so lost */
    unsigned long long recordings;    /* SsmRecToMem calls that started one */
    unsigned long long source_pos;    /* bytes the channel's source has given */
};
/* 0 with the figures, -1 for a channel the driver doesn't have. */
int shsim_get_audio_stats(int ch, struct shsim_audio_stats* out);

/* Number of events waiting for SsmWaitForEventA. */
int shsim_pending_events(void);

/* Runs one control command; the reply line goes into reply (truncated to
 * len bytes with the NUL). Returns 0 for an "OK" reply, -1 otherwise. */
int shsim_command(const char* line, char* reply, size_t len);

#ifdef __cplusplus
}
#endif

#endif
