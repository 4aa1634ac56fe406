/* A C host of the installed library. */
#include <stdio.h>

#include <tevix/tevix_ll.h>
#include <tevix/vx_log.h>

int main(void) {
    if (!vx_log_init(NULL, NULL, "C")) return 1;
    vx_log_cfg(NULL, VX_LOG_TARGET_CONSOLE, VX_LOG_OFF, 0);
    vx_log(NULL, VX_LOG_ERR, "ERR", "[%s]not shown\n", "main");
    tevix_ll_dev_t list[4];
    int n = tevix_ll_dev_list(list, 4);
    vx_log_uninit(NULL);
    if (n < 0) return 1;
    printf("consumer ok\n");
    return 0;
}
