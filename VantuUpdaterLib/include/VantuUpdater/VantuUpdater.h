#ifndef VANTUUPDATER_VANTUUPDATER_H
#define VANTUUPDATER_VANTUUPDATER_H

/*
 * Vantu Updater client library: the whole public interface.
 *
 * A host application calls these functions to make itself known to the Vantu Updater, to ask
 * whether update checks are enabled or an update is waiting for it, to start an update check, to
 * request components it finds missing and to run an action the updater prepared for it. The
 * library downloads nothing itself; it keeps shared records on disk and starts or signals the
 * separate updater application.
 *
 * Every function may be called from any thread of any process at any time; the library keeps no
 * state between calls. Text arguments are borrowed for the duration of the call only. Every
 * function except ROZGetVersion and ROZIsUpdateCheckEnabled returns one of the result codes
 * below.
 *
 * Argument rules (a failing check gives kROZResultInvalidArgument before any file is touched):
 *   appID        not NULL, not empty, at most 256 bytes, every byte from 0x20 to 0x7E; it names
 *                files and folders, so it is also neither "." nor ".." and holds no "/"
 *   displayName  not NULL, not empty, at most 512 bytes, valid UTF-8
 *   installPath  not NULL, not empty, valid UTF-8; at most 255 bytes for ROZRegisterApplication,
 *                ROZIsUpdateAvailable and ROZTriggerUpdateCheck
 *   displayLanguage  never rejected: a code such as "en_US"; shorter than five characters or
 *                NULL means no language is passed on
 * The limits are byte counts without the terminating NUL.
 *
 * No function lets an exception or an abort reach the caller, and none leaves a lock held. A
 * step that fails inside (memory running out, a file that cannot be read, written or replaced)
 * gives that step's result: the registered-applications store kROZResultRegistryUnusable
 * (kROZResultNotRegistered when a request registers first), the missing-components store and
 * the setting-up of an availability request kROZResultMissingCompsStoreFailed, starting the
 * updater kROZResultUpdaterUnavailable. Preferences that cannot be read or written count as
 * absent; an administrator policy that cannot be read gives no answer. ROZIsUpdateCheckEnabled
 * answers 0 and ROZGetVersion 0 when they cannot answer at all.
 */

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ROZ_EXPORT __attribute__((visibility("default")))
#else
#define ROZ_EXPORT
#endif

/* Result codes. Codes 10 and 11 are never produced. */
enum {
  kROZResultOK = 0,                      /* success, or nothing needed doing */
  kROZResultMissingCompsStoreFailed = 1, /* the missing-components request could not be recorded,
                                            or an availability request could not be marked */
  kROZResultUpdaterUnavailable = 2,      /* the updater is not installed or could not be started */
  kROZResultInvalidArgument = 3,         /* an argument failed the rules above */
  kROZResultRegistryUnusable = 4,        /* the registered-applications store failed and could not
                                            be rebuilt, or the entry could not be removed; also
                                            when the caller may not change the machine-wide
                                            store (not root and not in the group of
                                            /var/lib/Vantu/Updater5) or that folder is missing
                                            and the caller is not root: nothing is changed */
  kROZResultRegistryNotUpdated = 5,      /* the registered-applications store refused the entry */
  kROZResultNotRegistered = 6,           /* the application is not registered, or registering it
                                            failed */
  kROZResultUpdateCheckDisabled = 7,     /* ROZIsUpdateCheckEnabled() is false */
  kROZResultAnswerPending = 8,           /* the availability answer is not ready; ask again later
                                            with the same request number */
  kROZResultAlreadyRequested = 9,        /* every requested component was already requested */
  kROZResultUpdaterRunning = 12          /* the updater is running; the action was not started */
};

/* How a missing-components request is to be handled by the updater. The library does not
 * interpret the value: it is recorded with the request and compared with the type recorded
 * before. Any 32-bit value may be passed. */
typedef enum ROZDownloadMissingCompType {
  kROZDownloadMissingCompTypeDefault = 0,
  /* The two bounds make every 32-bit value, negative ones included, a value of the type. */
  kROZDownloadMissingCompTypeMin = -0x7FFFFFFF - 1,
  kROZDownloadMissingCompTypeMax = 0x7FFFFFFF
} ROZDownloadMissingCompType;

/* The kind of update check ROZTriggerUpdateCheck starts. */
typedef enum ROZTriggerType {
  kROZTriggerManual = 0,    /* the user asked: always starts the updater */
  kROZTriggerScheduled = 1, /* the host's schedule: honours the user's automatic-check settings */
  kROZTriggerTypeMin = -0x7FFFFFFF - 1, /* any other value is a manual check */
  kROZTriggerTypeMax = 0x7FFFFFFF
} ROZTriggerType;

/* One component the host found missing. All three are NUL-terminated byte strings. */
typedef struct ROZMissingComponent {
  char* category;
  char* name;
  char* version; /* dotted text of up to four numbers, such as "1.2.0.0" */
} ROZMissingComponent;

/* The list handed to ROZDownloadMissingComponents: `count` pointers to components. */
typedef struct ROZMissingComptList {
  uint32_t count;
  ROZMissingComponent** components;
} ROZMissingComptList;

/* The library's version packed as (a << 28) | (b << 24) | (c << 20) | d: 0x51000006 for 5.1.0.6. */
ROZ_EXPORT int32_t ROZGetVersion(void);

/* 1 when update checks are enabled for this user on this machine, else 0. An administrator policy
 * can switch them off for everybody; a user who is not an administrator is never enabled. */
ROZ_EXPORT int32_t ROZIsUpdateCheckEnabled(void);

/* Registers the application, or replaces its entry when the name or path changed. */
ROZ_EXPORT int32_t ROZRegisterApplication(const char* appID, const unsigned char* displayName,
                                          const unsigned char* installPath);

/* Removes the application's registration and its cached update answer. Unknown applications give
 * kROZResultNotRegistered. */
ROZ_EXPORT int32_t ROZUnRegisterApplication(const char* appID);

/* Asks whether an update is known for the application. The first call for a request number starts
 * the updater and gives kROZResultAnswerPending; a later call with the same number gives
 * kROZResultOK and stores the answer in *available. With registerFirst the application is
 * registered (or its entry refreshed) first. When the request cannot be set up at all (no folder
 * for the user's answers or workflow markers can be had, for instance because the runtime folder
 * is unusable and the private temporary folder belongs to another user), the request could not
 * be marked: kROZResultMissingCompsStoreFailed, never a pending answer that cannot come. */
ROZ_EXPORT int32_t ROZIsUpdateAvailable(const char* appID, const unsigned char* displayName,
                                        const unsigned char* installPath,
                                        unsigned long requestNumber, bool* available,
                                        bool registerFirst);

/* Starts an update check. appID may be NULL: the updater is then started for all applications
 * and nothing is registered. A scheduled trigger starts nothing when the user switched automatic
 * checks off or the check period has not elapsed. */
ROZ_EXPORT int32_t ROZTriggerUpdateCheck(const char* appID, const unsigned char* displayName,
                                         const unsigned char* installPath,
                                         const char* displayLanguage, ROZTriggerType type,
                                         bool registerFirst);

/* Asks the updater to run the action it prepared for the application. */
ROZ_EXPORT int32_t ROZDoPluginAction(const char* appID);

/* Records the components as missing for the application and has the updater fetch them: a
 * running updater is signalled, otherwise it is started. */
ROZ_EXPORT int32_t ROZDownloadMissingComponents(const char* appID,
                                                const unsigned char* displayName,
                                                const unsigned char* installPath,
                                                const char* displayLanguage,
                                                const ROZMissingComptList* list,
                                                ROZDownloadMissingCompType type,
                                                bool registerFirst);

#ifdef __cplusplus
}
#endif

#endif /* VANTUUPDATER_VANTUUPDATER_H */
