/*
 * ConfD C API, CDB part: reads of the committed configuration through a CDB
 * socket with an open read session. Our own declarations of the documented
 * subset. Paths are formats with the modifiers of confd_lib_cdb(3) PATHS;
 * "[N]" selects the N-th entry (0-based) of a list in data-store order.
 */
#ifndef CONFD_CDB_H
#define CONFD_CDB_H

#include "confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum cdb_db_type {
  CDB_RUNNING = 1,
  CDB_STARTUP = 2,
  CDB_OPERATIONAL = 3,
  CDB_PRE_COMMIT_RUNNING = 4
};
typedef enum cdb_db_type cdb_db_type;

enum cdb_sock_type { CDB_READ_SOCKET = 0, CDB_SUBSCRIPTION_SOCKET = 1, CDB_DATA_SOCKET = 2 };

/* Starts a read session on the running store. CDB_PRE_COMMIT_RUNNING is
 * readable only while a subscription notification is handled: here it
 * always fails with CONFD_ERR_NOEXISTS. */
int cdb_start_session(int sock, enum cdb_db_type db);
int cdb_end_session(int sock);

int cdb_num_instances(int sock, const char *fmt, ...);
int cdb_exists(int sock, const char *fmt, ...);
int cdb_get(int sock, confd_value_t *v, const char *fmt, ...);
int cdb_get_int32(int sock, int32_t *rval, const char *fmt, ...);
int cdb_get_u_int32(int sock, u_int32_t *rval, const char *fmt, ...);
/* Copies a string leaf into rval (n bytes, NUL-terminated). */
int cdb_get_str(int sock, char *rval, int n, const char *fmt, ...);
int cdb_get_ipv4_and_plen(int sock, struct confd_ipv4_prefix *rval, const char *fmt, ...);

#ifdef __cplusplus
}
#endif

#endif /* CONFD_CDB_H */
