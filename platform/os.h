// Operating-system services that act beyond the process: the wall clock,
// shell commands, the system logger, /etc/TZ, thread scheduling policy and
// System V message queues. The process reaches them only through these
// functions so that a build on the development host can keep every effect
// inside its board directory. Each follows the contract of the system call
// it stands for (0 or -1 with errno, unless said otherwise).
#pragma once

#include <sys/time.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <ctime>

// Prepares the platform for this process, given its command line (on the
// development host: the board directory, the chip id and fault injection
// from the environment; the first camera's number from the command line,
// which tells the simulated capture inputs which cameras they carry).
// Returns 0, or -1 after printing the reason on standard error; the process
// must then end with status 2.
int platform_init(int argc, char** argv);

// Wall clock.
time_t os_time(time_t* t);
int os_gettimeofday(struct timeval* tv);
int os_settimeofday(const struct timeval* tv);

// Monotonic clock in microseconds: steady, unmoved by the wall clock.
int64_t os_monotonic_us();
// Sleeps the calling thread for us microseconds; a cancellation point.
void os_usleep(uint32_t us);

// Runs a shell command; returns its status as system(3) does.
int os_system(const char* cmd);

// System logger.
void os_openlog(const char* ident, int option, int facility);
void os_syslog(int priority, const char* line);

// Replaces the content of /etc/TZ with the zone text and a newline.
int os_write_etc_tz(const char* tz);

// Sets the calling thread's scheduling policy and priority.
int os_sched_setscheduler(int policy, int priority);

// System V message queues. Keys are the system's own (MSG_KEY_ENCR ...);
// the platform maps them to the queues of this board and chip.
int os_msgget(key_t key, int flags);
int os_msgsnd(int msqid, const void* msgp, size_t msgsz, int msgflg);
ssize_t os_msgrcv(int msqid, void* msgp, size_t msgsz, long msgtyp, int msgflg);
