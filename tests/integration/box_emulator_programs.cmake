# The plug-in's operations against the Box emulator, a test program each
# ("box_calls.calls_test.AttemptsOfEachCall"):
#   box_calls      the shape and pacing state of every request, attempt
#                  budgets, the commit's back-off, the checksum's fall-backs;
#   box_command    make folder, delete, rename, checksums, metadata properties;
#   box_download   RETR: ranges, retries, failures;
#   box_in_flight  parts of an upload session and ranges of a download in
#                  flight at once;
#   box_upload     STOR and its restarts: one-request uploads, upload
#                  sessions with parts, commits.
foreach(name box_calls box_command box_download box_in_flight box_upload)
  tarvex_gtest(tarvex_${name}_tests PREFIX ${name}. LABEL integration
    SOURCES ${name}_test.cpp
    LIBRARIES tarvex_box_legacy_digests tarvex_test_box_session_support)
endforeach()
