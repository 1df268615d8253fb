/*
 * The shared store that the policy's "pacing_store" names, for what
 * sessions keep there besides their pacing slots (pacing.h): the change
 * journal of a user's sessions (session_journal.h).  One connection per
 * process serves both; while the store cannot be used its calls answer
 * nothing at once, and it is tried again at most every few seconds.
 */
#ifndef TARVEX_BOX_SHARED_STORE_H
#define TARVEX_BOX_SHARED_STORE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

struct tarvex_box_store_s;

/* The configured store; null when the policy names none. */
std::shared_ptr<tarvex_box_store_s> tarvex_box_store_open();

/* Runs a Lua script on the store (by its digest, sending the text only
 * when the store does not know it).  The answer must be an array; its
 * elements come back as text (integers written in decimal, nil as "").
 * None when the store cannot be asked now or answered something else. */
std::optional<std::vector<std::string>> tarvex_box_store_eval(tarvex_box_store_s &store,
                                                              const std::string &script,
                                                              const std::vector<std::string> &keys,
                                                              const std::vector<std::string> &args);

#endif
