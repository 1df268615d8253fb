/*
 * A storage plug-in as an outside author writes it: C11, built with only
 * the installed headers and the flags of the installed pkg-config file,
 * loaded by the installed server.  Whatever path it is asked about is the
 * folder "/" holding one file, "hello.txt".
 */
#define _XOPEN_SOURCE 700 /* S_IFDIR and S_IFREG */

#include <string.h>
#include <sys/stat.h>

#include <tarvex_gridftp_server.h>

#define HELLO_NAME "hello.txt"
#define HELLO_SIZE 12

static const tarvex_version_t hello_version = {1, 0, 0, 0};

static int hello_activate(void);
static int hello_deactivate(void);

tarvex_module_descriptor_t tarvex_gridftp_server_hello_module = {
    "tarvex_gridftp_server_hello", hello_activate, hello_deactivate, NULL, NULL,
    &hello_version, NULL};

static void hello_start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t *info)
{
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, NULL, info->username,
                                                 "/");
}

static void hello_destroy(void *session)
{
    (void)session;
}

static void hello_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *info, void *session)
{
    tarvex_gridftp_server_control_stat_t entry;
    (void)session;
    memset(&entry, 0, sizeof entry);
    entry.nlink = 1;
    entry.mtime = entry.atime = entry.ctime = 1700000000;
    if (info->file_only) {
        entry.mode = S_IFDIR | 0755;
        entry.name = "/";
    } else {
        entry.mode = S_IFREG | 0644;
        entry.name = HELLO_NAME;
        entry.size = HELLO_SIZE;
    }
    tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, &entry, 1);
}

static tarvex_gfs_storage_iface_t hello_table = {
    TARVEX_GFS_DSI_DESCRIPTOR_BLOCKING, hello_start, hello_destroy, NULL, NULL, NULL, NULL,
    NULL, NULL, NULL, NULL, hello_stat, NULL, NULL, NULL};

static int hello_activate(void)
{
    int rc = tarvex_module_activate(&tarvex_i_gfs_module);
    if (rc != 0)
        return rc;
    tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "hello",
                                  &tarvex_gridftp_server_hello_module, &hello_table);
    return 0;
}

static int hello_deactivate(void)
{
    tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "hello");
    tarvex_module_deactivate(&tarvex_i_gfs_module);
    return 0;
}
