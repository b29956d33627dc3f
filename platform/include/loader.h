/*
 * loader.h - why the unload hook of a library runs.
 */
#ifndef PLATFORM_LOADER_H
#define PLATFORM_LOADER_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Returns non-zero if the library whose unload hook calls this is being unloaded by an explicit
 * dlclose, zero if the hook runs because the process ends. Meaningful in unload hooks only.
 */
int __in_unload(void);

#ifdef __cplusplus
}
#endif

#endif
