// The host's fault log.
#ifndef KXMW_FAULT_H
#define KXMW_FAULT_H

/// Records a fault (kind, function, source file, line, text); the caller
/// goes on. Returns 0 when recorded.
extern "C" int kxmw_gen_fault(int kind, const char *function, const char *file, int line,
                              const char *message);

#endif  // KXMW_FAULT_H
