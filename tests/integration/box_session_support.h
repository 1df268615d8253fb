/*
 * Shared set-up of the Box session tests: one emulator per test program,
 * the plug-in pointed at it with its pacing files in a scratch directory,
 * a driver per test, and readers of the emulator's request log.
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
using strings = std::vector<std::string>;

/* A credential the emulator accepts, expiring in 2099. */
std::string creds_json(const std::string &user_id);
const tarvex_gfs_storage_iface_t *iface();
tarvex_test::BoxEmulator &emulator();
/* "$HOME/.tarvex" of the password entry; whether it existed before the
 * program started (session start makes it; the program removes it again). */
std::string home_dot();
bool home_dot_existed();

/* The folder id of a listing request ("GET /2.0/folders/ID/items"), else "". */
std::string listed_folder(const log_entry &entry);

/* Reply code, class and message of a result's FTP response error, and the
 * message of the outermost error. */
int error_code(tarvex_result_t result);
std::string error_class(tarvex_result_t result);
std::string error_message(tarvex_result_t result);
std::string message(tarvex_result_t result);

class session_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /* Seeds the emulator from the text of an entries array. */
    std::map<std::string, std::string> seed(const std::string &entries);
    /* Starts a session of Box user `user_id`; nullptr when refused. */
    tarvex_box_session_t *start(const std::string &user_id = "4242");
    /* Requests since the last clear, once the emulator (which logs a
     * request just after answering it) has caught up. */
    std::vector<log_entry> requests();
    void clear_requests();
    /* Folder ids of the listings since the last call. */
    strings listings();
    /* The next listing of folder `id` answers `page`. */
    void script_page(const std::string &id, const std::string &page);

    std::unique_ptr<tarvex_test::driver> driver_ = std::make_unique<tarvex_test::driver>();
    tarvex_box_session_t *session_ = nullptr;
};

} // namespace box_session_test

#endif
