// The check that comes before a privileged change of a tag. The password is asked for once: the caller's buffer keeps
// it. No copy of it is left behind here, and it is never printed.
#include <veliaxdr/rgy_manage.h>

#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_messages.h>
#include <veliaxdr/rgy_wire.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

constexpr size_t prompt_size = 128;
constexpr size_t password_size = RGY_PASSWORD_SIZE;
constexpr size_t prompted_size = IMSG_PASSWORD_SIZE;
static_assert(password_size == RGY_WIRE_PASSWORD_MAX + 1 && password_size >= prompted_size);

struct Typed {
    char text[password_size];

    void forget() { explicit_bzero(text, sizeof text); }
};

tbs_status_t ask_user(char *password) {
    char prompt[prompt_size];
    if (imsg_sprintf(prompt, &_registry_rvzd_msg_table, REGISTRY_MSG_PASSWORD_PROMPT) < 0)
        return TBS_ST_ERROR;
    Typed typed = {};
    return with_release(
        [&]() -> tbs_status_t {
            const bool is_entered = imsg_prompt_password(prompt, typed.text) == IMSG_PASSWORD_ENTERED;
            if (is_entered)
                strutl_cpy_buf(password, typed.text, password_size);
            return is_entered ? TBS_ST_OK : TBS_ST_ERROR;
        },
        [&] { typed.forget(); });
}

void print_denial(tbs_status_t status) {
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, REGISTRY_MSG_ACCESS_FOR_MODIFICATION);
    imsg_print(IMSG_CONTINUATION, &_registry_rvzd_msg_table, REGISTRY_MSG_ACCESS_DENIED);
    if (status == TBS_ST_NOT_FOUND)
        imsg_print(IMSG_CONTINUATION, &_registry_rvzd_msg_table, REGISTRY_MSG_NO_PASSWORD_CONFIGURED);
}

} // namespace

tbs_status_t rgy_chk_tag_priv(const char *host, char *password) {
    if (password == nullptr)
        return TBS_ST_INVALID_ARG;
    if (*password == '\0') {
        const auto status = ask_user(password);
        if (status != TBS_ST_OK)
            return status;
    }
    const auto status = rgy_chk_access(RGY_DB_VAULT_TAG, host, password);
    if (status != TBS_ST_OK)
        print_denial(status);
    return status;
}
