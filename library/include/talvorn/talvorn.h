/* Asks the TALVORN locator on this machine: which devices it has found, which items they
 * carry, and when that changes.
 *
 *   talvorn_client *client;
 *   if (talvorn_client_open(NULL, &client) == TALVORN_OK) {
 *     talvorn_device_list *devices;
 *     const talvorn_status status = talvorn_client_get_devices(client, &devices);
 *     ...
 *     talvorn_device_list_free(devices);
 *     talvorn_client_close(client);
 *   }
 *
 * Texts are UTF-8 and end with a zero byte. Times are in milliseconds. What devices send has no
 * code page of its own: it is read in the system's on Windows, elsewhere in Windows-1252 or in the
 * one that the environment variable TALVORN_CODE_PAGE names ("1251", "utf-8,CP932") when the first
 * client is opened; one that does not exist is TALVORN_BAD_ARGUMENT to talvorn_client_open().
 *
 * Threads: a client, a watch or a presence is used by one thread at a time, and any number of
 * each may be in use at once; talvorn_client_interrupt() alone may be called from any thread.
 * A list never changes: any number of threads may read it. After a fork() the child makes its
 * own.
 *
 * What a function hands out (through its last parameter, when it returns TALVORN_OK) the caller
 * gives back with the function that ends in _close or _free; NULL there does nothing. A text
 * inside a list stands as long as the list.
 *
 * Structures begin with `size`, which the caller sets to sizeof of the structure as compiled.
 * An older library leaves zero what it does not know of a larger structure that it fills in, and
 * answers TALVORN_NOT_SUPPORTED to a larger one in which something it does not know is asked
 * for. */
#ifndef TALVORN_TALVORN_H
#define TALVORN_TALVORN_H

#include <stddef.h>
#include <stdint.h>

#if !defined(_WIN32)
#define TALVORN_API __attribute__((visibility("default")))
#elif defined(TALVORN_BUILDS_LIBRARY)
#define TALVORN_API __declspec(dllexport)
#else
#define TALVORN_API __declspec(dllimport)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* How a call ended. A later library may have more. */
typedef int32_t talvorn_status;
enum {
  TALVORN_OK = 0,
  TALVORN_NO_LOCATOR = 1,     /* none runs on this machine, or none that this program can reach */
  TALVORN_NO_ANSWER = 2,      /* one is there, but has not answered in time */
  TALVORN_BAD_REPLY = 3,      /* what came in time was no well-formed reply */
  TALVORN_NO_MAILSLOT = 4,    /* a mailslot for the reply cannot be made, or is another's */
  TALVORN_BAD_REQUEST = 5,    /* a text is too long, or has characters outside the code page */
  TALVORN_INTERRUPTED = 6,    /* by talvorn_client_interrupt() */
  TALVORN_TIMEOUT = 7,        /* nothing has changed in this time */
  TALVORN_PENDING = 8,        /* asked for, not done yet */
  TALVORN_NOT_ASKED = 9,      /* nobody has asked for it, or the settings cannot be read */
  TALVORN_NOT_WRITTEN = 10,   /* this account may not write the locator's settings */
  TALVORN_NO_OBJECT = 11,     /* the system refuses the object that tells the locator of us */
  TALVORN_BAD_ARGUMENT = 12,  /* a null pointer, an index or a size that cannot be, no address */
  TALVORN_NOT_SUPPORTED = 13, /* by this version of the library */
  TALVORN_NO_RESOURCES = 14   /* no memory, thread or descriptor left */
};

/* One English sentence without a full stop, for any number. */
TALVORN_API const char* talvorn_status_text(talvorn_status status);

/* "1.0.0": of this library; of the locator, see talvorn_client_get_version(). */
TALVORN_API const char* talvorn_library_version(void);

/* ---- Asking ---- */

typedef struct talvorn_client talvorn_client;

typedef struct talvorn_client_options {
  size_t size;
  uint32_t timeout_ms;        /* of one request; 0: 3000 */
  const char* reply_mailslot; /* "\\.\mailslot\NAME", for one client at a time; NULL: a name that
                                 is its own, which is what a program wants */
} talvorn_client_options;

/* Sends nothing yet. `options` may be NULL.
 * TALVORN_BAD_ARGUMENT, TALVORN_NOT_SUPPORTED, TALVORN_NO_RESOURCES. */
TALVORN_API talvorn_status talvorn_client_open(const talvorn_client_options* options,
                                               talvorn_client** client);
TALVORN_API void talvorn_client_close(talvorn_client* client);

/* Ends the request that runs in another thread, or else the next one, with
 * TALVORN_INTERRUPTED. */
TALVORN_API void talvorn_client_interrupt(talvorn_client* client);

/* Each of these waits for the locator's answer, for the client's time-out at most, and may end
 * with any of TALVORN_NO_LOCATOR to TALVORN_INTERRUPTED, TALVORN_BAD_ARGUMENT and
 * TALVORN_NO_RESOURCES. A client goes on after each of them, also when the locator was ended
 * and started again. */

/* The text stands until the next call with this client. */
TALVORN_API talvorn_status talvorn_client_get_version(talvorn_client* client, const char** version);

/* The directory for the logs of client programs, with its separator at the end. The text stands
 * until the next call with this client. */
TALVORN_API talvorn_status talvorn_client_get_log_path(talvorn_client* client, const char** path);
/* NULL: back to the directory for temporary files. */
TALVORN_API talvorn_status talvorn_client_set_log_path(talvorn_client* client, const char* path);
TALVORN_API talvorn_status talvorn_client_start_log(talvorn_client* client);
TALVORN_API talvorn_status talvorn_client_stop_log(talvorn_client* client);

/* ---- Devices ---- */

typedef struct talvorn_device_list talvorn_device_list;

typedef struct talvorn_device {
  size_t size;
  const char* serial; /* "1234567": which device it is; its other texts may change */
  const char* alias;
  const char* status; /* "IDLE" */
  const char* clip;   /* "B1" */
  const char* ipv4;   /* where it was heard; one of both is empty as a rule */
  const char* ipv6;
  const char* host_alias; /* what it says of the station that it belongs to */
  const char* host_ipv4;
  const char* host_ipv6;
  uint32_t number; /* the serial as a number, by which items name their device */
} talvorn_device;

/* In ascending order of their serials as texts. */
TALVORN_API talvorn_status talvorn_client_get_devices(talvorn_client* client,
                                                      talvorn_device_list** devices);
TALVORN_API size_t talvorn_device_list_size(const talvorn_device_list* devices);
/* TALVORN_BAD_ARGUMENT for an index that is not below the list's size. */
TALVORN_API talvorn_status talvorn_device_list_get(const talvorn_device_list* devices, size_t index,
                                                   talvorn_device* device);
TALVORN_API void talvorn_device_list_free(talvorn_device_list* devices);

/* ---- Items ---- */

typedef struct talvorn_item_list talvorn_item_list;

typedef struct talvorn_item {
  size_t size;
  const char* digest;     /* SHA-1 of what identifies the item, 40 hexadecimal digits */
  const uint8_t* header;  /* 12 bytes, the device's own */
  const uint8_t* content; /* the body behind its length word, `content_size` bytes */
  size_t content_size;
  const uint8_t* bytes; /* the whole item as the device sent it, `bytes_size` bytes */
  size_t bytes_size;
  uint32_t device;      /* number of the device */
  uint32_t hash_length; /* bytes, from the start, that identify the item */
  uint32_t next_offset; /* as the device sent it */
} talvorn_item;

/* Newest first. */
TALVORN_API talvorn_status talvorn_client_get_items(talvorn_client* client,
                                                    talvorn_item_list** items);
TALVORN_API size_t talvorn_item_list_size(const talvorn_item_list* items);
/* TALVORN_BAD_ARGUMENT for an index that is not below the list's size. */
TALVORN_API talvorn_status talvorn_item_list_get(const talvorn_item_list* items, size_t index,
                                                 talvorn_item* item);
TALVORN_API void talvorn_item_list_free(talvorn_item_list* items);

/* ---- Changes ---- */

/* Says when it is time to read the lists again: at once when an item has appeared, changed or
 * gone, and every so often, since devices come and go without a signal and a signal can be
 * missed. */
typedef struct talvorn_watch talvorn_watch;

typedef struct talvorn_watch_options {
  size_t size;
  uint32_t device;      /* only items of the device with this number; 0: of all */
  uint32_t interval_ms; /* the longest time between two readings; 0: 5000 */
} talvorn_watch_options;

/* A file descriptor on Linux, a HANDLE on Windows. */
typedef intptr_t talvorn_waitable;

/* `options` may be NULL. TALVORN_BAD_ARGUMENT, TALVORN_NOT_SUPPORTED, TALVORN_NO_RESOURCES. */
TALVORN_API talvorn_status talvorn_watch_open(const talvorn_watch_options* options,
                                              talvorn_watch** watch);
TALVORN_API void talvorn_watch_close(talvorn_watch* watch);

/* Returns TALVORN_OK when it is time to read the lists, TALVORN_TIMEOUT when it is not within
 * `timeout_ms`. */
TALVORN_API talvorn_status talvorn_watch_wait(talvorn_watch* watch, uint32_t timeout_ms);

/* For an event loop: readable (signalled) when it is time to read the lists, until
 * talvorn_watch_wait(watch, 0) has said so. The watch owns it; do nothing but wait for it. */
TALVORN_API talvorn_waitable talvorn_watch_get_waitable(const talvorn_watch* watch);

/* ---- Keeping the locator alive ---- */

/* As long as one is open, in whatever program, a locator that was started with /dynamic stays. */
typedef struct talvorn_presence talvorn_presence;

/* TALVORN_BAD_ARGUMENT, TALVORN_NO_RESOURCES. */
TALVORN_API talvorn_status talvorn_presence_open(talvorn_presence** presence);
/* TALVORN_OK, or TALVORN_NO_OBJECT while the system lets nobody tell the locator; it is tried
 * again every second. */
TALVORN_API talvorn_status talvorn_presence_get_status(const talvorn_presence* presence);
TALVORN_API void talvorn_presence_close(talvorn_presence* presence);

/* ---- Taking up an interface anew ---- */

/* Asks the locator to stop its work on the interface with this IPv4 address and to take it up
 * anew, usually within a second. TALVORN_PENDING when it has been asked; TALVORN_BAD_ARGUMENT,
 * TALVORN_NOT_WRITTEN, TALVORN_NO_RESOURCES. */
TALVORN_API talvorn_status talvorn_reinitialisation_request(const char* ipv4);
/* TALVORN_OK when the locator has taken notice, TALVORN_PENDING before; TALVORN_NOT_ASKED,
 * TALVORN_BAD_ARGUMENT, TALVORN_NO_RESOURCES. */
TALVORN_API talvorn_status talvorn_reinitialisation_query(const char* ipv4);

#ifdef __cplusplus
}
#endif

#endif
