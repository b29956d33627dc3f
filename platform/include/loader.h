/*
 * loader.h - what a library's unload hook asks about the unload.
 */
#ifndef PLATFORM_LOADER_H
#define PLATFORM_LOADER_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Non-zero when the library whose unload hook asks is being unloaded by an explicit dlclose, zero
 * when the hook runs because the process ends. Meaningful in unload hooks only.
 */
int __in_unload(void);

#ifdef __cplusplus
}
#endif

#endif
