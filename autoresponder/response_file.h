#pragma once

// The temporary file under resp_uu_file_name in which a reply is composed.

#include "lib/util/unique_fd.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

// One reply's file. The first reply of a run gives resp_uu_file_name its name; later ones use the
// name again, each with a file created anew, or another name where that one can't be had again.
// Failures are not reported: what can't be created or written is missing from the file, and
// delivery tells about a file that isn't there.
class ResponseFile {
public:
    // A text of so many bytes or more is not kept.
    static constexpr size_t kBlockBytes = 65536;

    // Completes the name in place (mkstemp(3)) where that hasn't been done in this run.
    ResponseFile();

    // Makes the file ready to be written from its beginning; creates it where it isn't there.
    void open();

    // Appends `text`: one of kBlockBytes or more reaches the file at once, smaller ones together
    // or at flush().
    void write(std::string_view text);
    void flush();

    // The file's size in bytes after flush(); nothing when it can't be told.
    std::optional<off_t> size() const;

    // Empties the file for another text.
    void restart();

    // Flushes and closes; the file stays under its name.
    void close();

private:
    void put(std::string_view text);

    UniqueFd file_;
    std::string pending_;
    bool failed_ = false;
};
