/*
 * Shared set-up of the Box session tests: one emulator for the whole test
 * program, a driver per test, the plug-in's own functions in a storage
 * table, and helpers to read the emulator's request log.
 */
#ifndef TARVEX_BOX_SESSION_SUPPORT_H
#define TARVEX_BOX_SESSION_SUPPORT_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "box_emulator.h"
#include "driver.h"
#include "tarvex_box_common.h"

namespace box_session_test {

using log_entry = tarvex_test::BoxEmulator::LogEntry;

/* A credential the emulator accepts, expiring far in the future so that no
 * test renews it. */
std::string creds_json(const std::string &user_id, const std::string &token = "test-token");

/* The plug-in's entry points as the server would find them. */
const tarvex_gfs_storage_iface_t *iface();

/* The emulator, started once for the program. */
tarvex_test::BoxEmulator &emulator();

/* A scratch directory of the program (pacing files go there). */
const std::string &scratch();

/* "$HOME/.tarvex" of the password entry, and whether it existed before
 * this program started any session. */
std::string home_dot();
bool home_dot_existed();

/* The Box id in the path of a listing request ("/2.0/folders/ID/items"),
 * or "" for any other request. */
std::string listed_folder(const log_entry &entry);

/* The emulator's log once it has stopped growing. */
std::vector<log_entry> settled_log();

/* FTP response error of a result: reply code, class word, message. */
int error_code(tarvex_result_t result);
std::string error_class(tarvex_result_t result);
std::string error_message(tarvex_result_t result);
/* The message of the outermost error. */
std::string message(tarvex_result_t result);

/* A test with an empty emulator tree and a driver. */
class session_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /* Seeds the emulator with {"entries":[...]} built from `entries_json`
     * (the array's text); returns path -> id. */
    std::map<std::string, std::string> seed(const std::string &entries_json);
    /* Starts a session for Box user `user_id`; nullptr when refused. */
    tarvex_box_session_t *start(const std::string &user_id = "4242");
    /* Requests the emulator received since the last clear, once its log
     * has caught up (it logs a request just after answering it). */
    std::vector<log_entry> requests() { return settled_log(); }
    void clear_requests();

    std::unique_ptr<tarvex_test::driver> driver_ = std::make_unique<tarvex_test::driver>();
    tarvex_box_session_t *session_ = nullptr;
};

} // namespace box_session_test

#endif
