// The id and name of the job that the process is, from its environment.
#include "jobctl.h"

#include "platform/base/export.h"
#include "platform/base/number.h"

#include <cstdlib>
#include <cstring>

PLATFORM_EXPORT uint32_t jobctl_get_job_id(uint32_t *job_id_p)
{
    if (job_id_p == nullptr)
        return JOBCTL_RC_NULL_ARG;
    const char *const text = secure_getenv("VS_JOB_ID");
    if (text == nullptr)
        return JOBCTL_RC_NOT_A_JOB;
    const uint32_t job_id = platform::parse_number(text, 10).value_or(0);
    if (job_id == 0)
        return JOBCTL_RC_BAD_JOB_ID;
    *job_id_p = job_id;
    return 0;
}

PLATFORM_EXPORT uint32_t jobctl_get_jobctl_name(char *name, uint32_t size)
{
    if (name == nullptr || size == 0)
        return JOBCTL_RC_NULL_ARG;
    const char *const text = secure_getenv("VS_JOB_NAME");
    if (text == nullptr || text[0] == '\0')
        return JOBCTL_RC_NOT_A_JOB;
    const size_t length = strlen(text);
    if (length >= size)
        return JOBCTL_RC_NAME_TOO_LONG;
    memcpy(name, text, length + 1);
    return 0;
}
