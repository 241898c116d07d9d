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

/* Back to a fresh process: the driver closed (SsmCloseCti), no events,
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

/* Step mode: SsmWaitForEventA returns -1 at once when nothing is queued. */
void shsim_set_step_mode(int on);

/* Number of events waiting for SsmWaitForEventA. */
int shsim_pending_events(void);

/* Runs one control command; the reply line goes into reply (truncated to
 * len bytes with the NUL). Returns 0 for an "OK" reply, -1 otherwise. */
int shsim_command(const char* line, char* reply, size_t len);

#ifdef __cplusplus
}
#endif

#endif
