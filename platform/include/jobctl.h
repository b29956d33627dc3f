/*
 * jobctl.h - the job manager, as seen by a process that may be one of its jobs.
 *
 * A process is a job if the job manager started it with VS_JOB_ID (a decimal number from 1 to
 * 4294967295) and VS_JOB_NAME in its environment. The variables are read at each call; both
 * functions are safe in any thread as long as no other thread changes the environment.
 */
#ifndef PLATFORM_JOBCTL_H
#define PLATFORM_JOBCTL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define JOBCTL_RC_NULL_ARG UINT32_C(0xA6980200)   /* an out-parameter is null */
#define JOBCTL_RC_NOT_A_JOB UINT32_C(0xC6980400)  /* the job manager did not start this process */
#define JOBCTL_RC_BAD_JOB_ID UINT32_C(0xC6980600) /* VS_JOB_ID is no number from 1 to 2^32 - 1 */
#define JOBCTL_RC_NAME_TOO_LONG UINT32_C(0xC6980800) /* the job's name does not fit the buffer */

/* Writes the job id of the calling process. On failure *job_id_p is untouched. */
uint32_t jobctl_get_job_id(uint32_t *job_id_p);

/*
 * Writes the job name of the calling process, NUL-terminated, into the `size` bytes at `name`. On
 * failure the buffer is untouched.
 */
uint32_t jobctl_get_jobctl_name(char *name, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
