/*
 * ConfD C API, library part: value types, keypaths, transaction contexts and
 * the general-purpose helpers. Our own declarations of the documented API
 * subset the element's validation plug-ins use; the implementation is the
 * in-process data store of this project (libconfd).
 */
#ifndef CONFD_LIB_H
#define CONFD_LIB_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CONFD_OK 0
#define CONFD_ERR (-1)
#define CONFD_EOF (-2)

/* Values of confd_errno after a failed call (the store sets the first
 * group; the others are declared for code written against the full API). */
#define CONFD_ERR_NOEXISTS 1    /* the path names nothing that exists */
#define CONFD_ERR_BADTYPE 5     /* the node's value is of another type */
#define CONFD_ERR_BADPATH 8     /* malformed path, or one the schema does not know */
#define CONFD_ERR_PROTOUSAGE 21 /* wrong call sequence (no session, bad cursor) */
#define CONFD_ERR_NOSESSION 22  /* unknown socket or transaction handle */
#define CONFD_ERR_XPATH 50      /* XPath expression that cannot be evaluated */

#define CONFD_ERR_ALREADY_EXISTS 2
#define CONFD_ERR_ACCESS_DENIED 3
#define CONFD_ERR_NOT_WRITABLE 4
#define CONFD_ERR_NOTCREATABLE 6
#define CONFD_ERR_NOTDELETABLE 7
#define CONFD_ERR_NOSTACK 9
#define CONFD_ERR_LOCKED 10
#define CONFD_ERR_INUSE 11
#define CONFD_ERR_BADSTATE 17
#define CONFD_ERR_INTERNAL 18
#define CONFD_ERR_EXTERNAL 19
#define CONFD_ERR_MALLOC 20
#define CONFD_ERR_OS 24
#define CONFD_ERR_UNAVAILABLE 44
#define CONFD_ERR_EOF 45
#define CONFD_ERR_NOT_IMPLEMENTED 51

#define MAXDEPTH 20 /* deepest keypath */
#define MAXKEYLEN 9 /* most keys of one list entry */

enum confd_vtype {
  C_NOEXISTS = 1,
  C_XMLTAG = 2,
  C_SYMBOL = 3,
  C_STR = 4,
  C_BUF = 5,
  C_INT8 = 6,
  C_INT16 = 7,
  C_INT32 = 8,
  C_INT64 = 9,
  C_UINT8 = 10,
  C_UINT16 = 11,
  C_UINT32 = 12,
  C_UINT64 = 13,
  C_DOUBLE = 14,
  C_IPV4 = 15,
  C_IPV6 = 16,
  C_BOOL = 17,
  C_QNAME = 18,
  C_DATETIME = 19,
  C_DATE = 20,
  C_TIME = 23,
  C_DURATION = 27,
  C_ENUM_VALUE = 28,
  C_BIT32 = 29,
  C_BIT64 = 30,
  C_LIST = 31,
  C_XMLBEGIN = 32,
  C_XMLEND = 33,
  C_OBJECTREF = 34,
  C_UNION = 35,
  C_PTR = 36,
  C_CDBBEGIN = 37,
  C_OID = 38,
  C_BINARY = 39,
  C_IPV4PREFIX = 40,
  C_IPV6PREFIX = 41,
  C_DEFAULT = 42,
  C_DECIMAL64 = 43,
  C_IDENTITYREF = 44,
  C_XMLBEGINDEL = 45,
  C_DQUAD = 46,
  C_HEXSTR = 47,
  C_IPV4_AND_PLEN = 48,
  C_IPV6_AND_PLEN = 49,
  C_BITBIG = 50,
  C_XMLMOVEFIRST = 51,
  C_XMLMOVEAFTER = 52,
  C_EMPTY = 53,
  C_MAXTYPE /* one past the last type */
};

struct xml_tag {
  u_int32_t tag;
  u_int32_t ns;
};

typedef struct confd_buf {
  unsigned int size;
  unsigned char *ptr;
} confd_buf_t;

typedef struct confd_buf_const {
  unsigned int size;
  const unsigned char *ptr;
} confd_buf_const_t;

struct confd_ipv4_prefix {
  struct in_addr ip;
  u_int8_t len;
};

struct confd_ipv6_prefix {
  struct in6_addr ip6;
  u_int8_t len;
};

struct confd_qname {
  confd_buf_t prefix;
  confd_buf_t name;
};

/* timezone: hours from UTC (-14..14), or CONFD_TIMEZONE_UNDEF for "-00:00". */
#define CONFD_TIMEZONE_UNDEF (-111)

struct confd_datetime {
  int16_t year;
  u_int8_t month;
  u_int8_t day;
  u_int8_t hour;
  u_int8_t min;
  u_int8_t sec;
  u_int32_t micro;
  int8_t timezone;
  int8_t timezone_minutes;
};

struct confd_date {
  int16_t year;
  u_int8_t month;
  u_int8_t day;
  int8_t timezone;
  int8_t timezone_minutes;
};

struct confd_time {
  u_int8_t hour;
  u_int8_t min;
  u_int8_t sec;
  u_int32_t micro;
  int8_t timezone;
  int8_t timezone_minutes;
};

struct confd_duration {
  u_int32_t years;
  u_int32_t months;
  u_int32_t days;
  u_int32_t hours;
  u_int32_t mins;
  u_int32_t secs;
  u_int32_t micros;
};

struct confd_value;

/* A leaf-list's values (C_LIST). */
struct confd_list {
  unsigned int size;
  struct confd_value *ptr;
};

/* C_PTR: where a typed read stores its value. */
struct confd_vptr {
  enum confd_vtype type;
  void *valp;
};

struct confd_snmp_oid {
  u_int32_t oid[128];
  int len;
};

/* value / 10^fraction_digits */
struct confd_decimal64 {
  int64_t value;
  u_int8_t fraction_digits;
};

struct confd_identityref {
  u_int32_t ns;
  u_int32_t id;
};

struct confd_dotted_quad {
  unsigned char quad[4];
};

struct confd_hkeypath;

typedef struct confd_value {
  enum confd_vtype type;
  union {
    struct xml_tag xmltag;
    u_int32_t symbol;
    confd_buf_t buf;
    confd_buf_const_t c_buf;
    char *s;
    const char *c_s;
    int8_t i8;
    int16_t i16;
    int32_t i32;
    int64_t i64;
    u_int8_t u8;
    u_int16_t u16;
    u_int32_t u32;
    u_int64_t u64;
    double d;
    struct in_addr ip;
    struct in6_addr ip6;
    int boolean;
    struct confd_qname qname;
    struct confd_datetime datetime;
    struct confd_date date;
    struct confd_time time;
    struct confd_duration duration;
    int32_t enumvalue;
    u_int32_t b32;
    u_int64_t b64;
    struct confd_list list;
    struct confd_hkeypath *hkp;
    struct confd_vptr ptr;
    struct confd_snmp_oid *oidp;
    struct confd_ipv4_prefix ipv4prefix;
    struct confd_ipv6_prefix ipv6prefix;
    struct confd_decimal64 d64;
    struct confd_identityref idref;
    struct confd_dotted_quad dquad;
    u_int32_t enumhash;
  } val;
} confd_value_t;

/* Accessors. */
#define CONFD_GET_XMLTAG(v) ((v)->val.xmltag.tag)
#define CONFD_GET_XMLTAG_NS(v) ((v)->val.xmltag.ns)
#define CONFD_GET_BUFSIZE(v) ((v)->val.buf.size)
#define CONFD_GET_BUFPTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_CBUFPTR(v) ((const char *)(v)->val.buf.ptr)
#define CONFD_GET_STR(v) ((v)->val.s)
#define CONFD_GET_BINARY_SIZE(v) ((v)->val.buf.size)
#define CONFD_GET_BINARY_PTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_HEXSTR_SIZE(v) ((v)->val.buf.size)
#define CONFD_GET_HEXSTR_PTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_BITBIG_SIZE(v) ((v)->val.buf.size)
#define CONFD_GET_BITBIG_PTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_INT8(v) ((v)->val.i8)
#define CONFD_GET_INT16(v) ((v)->val.i16)
#define CONFD_GET_INT32(v) ((v)->val.i32)
#define CONFD_GET_INT64(v) ((v)->val.i64)
#define CONFD_GET_UINT8(v) ((v)->val.u8)
#define CONFD_GET_UINT16(v) ((v)->val.u16)
#define CONFD_GET_UINT32(v) ((v)->val.u32)
#define CONFD_GET_UINT64(v) ((v)->val.u64)
#define CONFD_GET_DOUBLE(v) ((v)->val.d)
#define CONFD_GET_BOOL(v) ((v)->val.boolean)
#define CONFD_GET_ENUM_VALUE(v) ((v)->val.enumvalue)
#define CONFD_GET_BIT32(v) ((v)->val.b32)
#define CONFD_GET_BIT64(v) ((v)->val.b64)
#define CONFD_GET_IPV4(v) ((v)->val.ip)
#define CONFD_GET_IPV6(v) ((v)->val.ip6)
#define CONFD_GET_IPV4PREFIX(v) ((v)->val.ipv4prefix)
#define CONFD_GET_IPV6PREFIX(v) ((v)->val.ipv6prefix)
#define CONFD_GET_IPV4_AND_PLEN(v) ((v)->val.ipv4prefix)
#define CONFD_GET_IPV6_AND_PLEN(v) ((v)->val.ipv6prefix)
#define CONFD_GET_DATETIME(v) ((v)->val.datetime)
#define CONFD_GET_DATE(v) ((v)->val.date)
#define CONFD_GET_TIME(v) ((v)->val.time)
#define CONFD_GET_DURATION(v) ((v)->val.duration)
#define CONFD_GET_DECIMAL64(v) ((v)->val.d64)
#define CONFD_GET_IDENTITYREF(v) ((v)->val.idref)
#define CONFD_GET_DQUAD(v) ((v)->val.dquad)
#define CONFD_GET_OID(v) ((v)->val.oidp)
#define CONFD_GET_OBJECTREF(v) ((v)->val.hkp)
#define CONFD_GET_LIST(v) ((v)->val.list.ptr)
#define CONFD_GET_LISTSIZE(v) ((v)->val.list.size)

/* Setters; the buffer, string and list setters do not copy. */
#define CONFD_SET_NOEXISTS(v) ((v)->type = C_NOEXISTS)
#define CONFD_SET_XMLTAG(v, t, n) \
  ((v)->type = C_XMLTAG, (v)->val.xmltag.tag = (t), (v)->val.xmltag.ns = (n))
#define CONFD_SET_BUF(v, p, sz) \
  ((v)->type = C_BUF, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (sz))
#define CONFD_SET_CBUF(v, p, sz) \
  ((v)->type = C_BUF, (v)->val.c_buf.ptr = (const unsigned char *)(p), (v)->val.c_buf.size = (sz))
/* A NUL-terminated string: a C_STR value (the store hands out C_BUF). */
#define CONFD_SET_STR(v, p) ((v)->type = C_STR, (v)->val.c_s = (p))
#define CONFD_SET_BINARY(v, p, sz) \
  ((v)->type = C_BINARY, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (sz))
#define CONFD_SET_HEXSTR(v, p, sz) \
  ((v)->type = C_HEXSTR, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (sz))
#define CONFD_SET_BITBIG(v, p, sz) \
  ((v)->type = C_BITBIG, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (sz))
#define CONFD_SET_INT8(v, x) ((v)->type = C_INT8, (v)->val.i8 = (x))
#define CONFD_SET_INT16(v, x) ((v)->type = C_INT16, (v)->val.i16 = (x))
#define CONFD_SET_INT32(v, x) ((v)->type = C_INT32, (v)->val.i32 = (x))
#define CONFD_SET_INT64(v, x) ((v)->type = C_INT64, (v)->val.i64 = (x))
#define CONFD_SET_UINT8(v, x) ((v)->type = C_UINT8, (v)->val.u8 = (x))
#define CONFD_SET_UINT16(v, x) ((v)->type = C_UINT16, (v)->val.u16 = (x))
#define CONFD_SET_UINT32(v, x) ((v)->type = C_UINT32, (v)->val.u32 = (x))
#define CONFD_SET_UINT64(v, x) ((v)->type = C_UINT64, (v)->val.u64 = (x))
#define CONFD_SET_DOUBLE(v, x) ((v)->type = C_DOUBLE, (v)->val.d = (x))
#define CONFD_SET_BOOL(v, x) ((v)->type = C_BOOL, (v)->val.boolean = (x))
#define CONFD_SET_ENUM_VALUE(v, x) ((v)->type = C_ENUM_VALUE, (v)->val.enumvalue = (x))
#define CONFD_SET_BIT32(v, x) ((v)->type = C_BIT32, (v)->val.b32 = (x))
#define CONFD_SET_BIT64(v, x) ((v)->type = C_BIT64, (v)->val.b64 = (x))
#define CONFD_SET_IPV4(v, x) ((v)->type = C_IPV4, (v)->val.ip = (x))
#define CONFD_SET_IPV6(v, x) ((v)->type = C_IPV6, (v)->val.ip6 = (x))
#define CONFD_SET_IPV4PREFIX(v, x) ((v)->type = C_IPV4PREFIX, (v)->val.ipv4prefix = (x))
#define CONFD_SET_IPV6PREFIX(v, x) ((v)->type = C_IPV6PREFIX, (v)->val.ipv6prefix = (x))
#define CONFD_SET_IPV4_AND_PLEN(v, x) ((v)->type = C_IPV4_AND_PLEN, (v)->val.ipv4prefix = (x))
#define CONFD_SET_IPV6_AND_PLEN(v, x) ((v)->type = C_IPV6_AND_PLEN, (v)->val.ipv6prefix = (x))
#define CONFD_SET_DATETIME(v, x) ((v)->type = C_DATETIME, (v)->val.datetime = (x))
#define CONFD_SET_DATE(v, x) ((v)->type = C_DATE, (v)->val.date = (x))
#define CONFD_SET_TIME(v, x) ((v)->type = C_TIME, (v)->val.time = (x))
#define CONFD_SET_DURATION(v, x) ((v)->type = C_DURATION, (v)->val.duration = (x))
#define CONFD_SET_DECIMAL64(v, x) ((v)->type = C_DECIMAL64, (v)->val.d64 = (x))
#define CONFD_SET_IDENTITYREF(v, x) ((v)->type = C_IDENTITYREF, (v)->val.idref = (x))
#define CONFD_SET_DQUAD(v, x) ((v)->type = C_DQUAD, (v)->val.dquad = (x))
#define CONFD_SET_OID(v, x) ((v)->type = C_OID, (v)->val.oidp = (x))
#define CONFD_SET_OBJECTREF(v, x) ((v)->type = C_OBJECTREF, (v)->val.hkp = (x))
#define CONFD_SET_LIST(v, p, sz) \
  ((v)->type = C_LIST, (v)->val.list.ptr = (p), (v)->val.list.size = (sz))
#define CONFD_SET_EMPTY(v) ((v)->type = C_EMPTY)

/*
 * A keypath, innermost element first: v[0] is the last element of the path,
 * v[len - 1] the first. An element is either a tag (v[i][0] of type C_XMLTAG,
 * v[i][1] C_NOEXISTS) or the keys of a list entry (v[i][0..k-1], then
 * C_NOEXISTS).
 */
typedef struct confd_hkeypath {
  int len;
  confd_value_t v[MAXDEPTH][MAXKEYLEN];
} confd_hkeypath_t;

struct confd_user_info;
struct confd_daemon_ctx;
struct confd_tr_item;

enum confd_trans_mode { CONFD_READ = 1, CONFD_READ_WRITE = 2 };

enum confd_dbname {
  CONFD_NO_DB = 0,
  CONFD_CANDIDATE = 1,
  CONFD_RUNNING = 2,
  CONFD_STARTUP = 3,
  CONFD_OPERATIONAL = 4,
  CONFD_PRE_COMMIT_RUNNING = 6,
  CONFD_INTENDED = 7
};

/* The error a callback sets (confd_trans_seterr); the store keeps the text
 * of a transaction under validation itself, this stays empty. */
struct confd_error {
  int code;
  char *str;
};

union confd_request_data {
  struct {
    u_int32_t request_id;
  } snmp;
};

/* What a transaction callback (here: a validation callback) is handed: the
 * documented members, then the store's own. */
struct confd_trans_ctx {
  int fd;                      /* worker socket of the daemon */
  int vfd;                     /* validation socket */
  struct confd_daemon_ctx *dx; /* daemon context */
  enum confd_trans_mode mode;
  enum confd_dbname dbname;
  struct confd_user_info *uinfo;
  void *t_opaque; /* private data of transaction callbacks */
  void *v_opaque; /* private data of validation callbacks */
  struct confd_error error;
  struct confd_tr_item *accumulated;
  int thandle;         /* transaction handle for MAAPI calls */
  void *cb_opaque;     /* private data of the data callback registration */
  void *vcb_opaque;    /* private data of the validation callback registration */
  int secondary_index; /* list traversal by a secondary index, when != 0 */
  int validation_info; /* CONFD_VALIDATION_FLAG_* */
  char *callpoint_opaque;
  char *validate_opaque; /* opaque string of the validation point */
  union confd_request_data request_data;
  int hide_inactive;
  int traversal_id;
  int cb_flags;
  void *internal; /* the data store's own bookkeeping */
};

#define CONFD_VALIDATION_FLAG_TEST (1 << 0)
#define CONFD_VALIDATION_FLAG_COMMIT (1 << 1)

/* Error code of the last failed call of this thread: each thread has its
 * own, as with errno. */
extern __thread int confd_errno;

/* Text of the last error of this thread (the path or value it concerns);
 * the buffer is the library's, valid until this thread's next failed call. */
char *confd_lasterr(void);

/* Renders v as text without a schema: C_ENUM_VALUE as "enum<N>", C_BIT32
 * and C_BIT64 as "bits<X>" (X hexadecimal), C_BINARY as hexBinary text
 * (hex digits, no separators), C_XMLTAG as the element's name ("tag<N>"
 * when the name is unknown), C_IDENTITYREF as the identity's name
 * ("idref<N>" when unknown), everything else in its text form. Returns
 * the length the whole text needs, as snprintf; never a negative value. */
int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v);

/* Renders a keypath in path syntax; returns the length it needed, never a
 * negative value. Keys print by the types of their leaves in the schema of
 * the transaction this thread last called into; an element whose name is
 * unknown prints as "tag<N>". */
int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath);

/*
 * Both release what a read allocated for v (the buffer of a C_BUF, C_BINARY,
 * C_HEXSTR or C_BITBIG value, the array of a C_LIST, the struct of a C_OID);
 * for other values they release nothing. The store counts allocated values
 * per transaction until they are released.
 */
void confd_free_dup_to_value(confd_value_t *v);
void confd_free_value(confd_value_t *v);

/* Sets the error text of a transaction under validation. */
void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif /* CONFD_LIB_H */
