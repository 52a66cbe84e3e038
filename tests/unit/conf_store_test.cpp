// Stores and their reader: files are written for each case, memory runs out where a case says so.

#include "lib/conf/qrx_conf.h"
#include "lib/util/messlog.h"
#include "tests/twins/conf_reader_twin.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

// The linker sends the library's calls here (ld(1), --wrap). A count of n lets the n-th call fail.
namespace {
int failing_calloc = 0;
int failing_realloc = 0;
int failing_strdup = 0;
int failing_getdelim = 0;
size_t asked_of_realloc = 0; // bytes
int opened_without_cloexec = 0;

bool fails_now(int& count) {
    if (count == 0 || --count != 0)
        return false;
    errno = ENOMEM;
    return true;
}
} // namespace

extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
char* __real_strdup(const char* text);
ssize_t __real_getdelim(char** line, size_t* size, int delimiter, FILE* file);

void* __wrap_calloc(size_t count, size_t size) {
    return fails_now(failing_calloc) ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* block, size_t size) {
    asked_of_realloc = size;
    return fails_now(failing_realloc) ? nullptr : __real_realloc(block, size);
}

char* __wrap_strdup(const char* text) {
    return fails_now(failing_strdup) ? nullptr : __real_strdup(text);
}

ssize_t __wrap_getdelim(char** line, size_t* size, int delimiter, FILE* file) {
    if ((fcntl(fileno(file), F_GETFD) & FD_CLOEXEC) == 0)
        ++opened_without_cloexec;
    return fails_now(failing_getdelim) ? -1 : __real_getdelim(line, size, delimiter, file);
}
}

namespace {

using namespace std::string_literals;

struct Report {
    int level;
    std::string text;
};
std::vector<Report> reports;

// A log back-end that spoils errno, as any back-end may.
[[gnu::format(printf, 2, 3)]] void record(int level, const char* format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    reports.push_back({level, text});
    errno = EDOM;
}

std::string reported() {
    std::string all;
    for (const Report& report : reports)
        all += "[" + std::to_string(report.level) + "]" + report.text;
    return all;
}

struct FreeStore {
    void operator()(conf_store* store) const { conf_free_r(store); }
};
using Store = std::unique_ptr<conf_store, FreeStore>;

Store new_store() {
    return Store{static_cast<conf_store*>(calloc(1, sizeof(conf_store)))};
}

std::string value_of(const Store& store, const char* name) {
    const char* const value = conf_get_r(name, store.get());
    return value != nullptr ? value : "(null)";
}

class ConfStore : public testing::Test {
protected:
    void SetUp() override {
        reports.clear();
        asked_of_realloc = 0;
        quarx_log = record;
        file_ = memfd_create("qrx.conf", MFD_CLOEXEC);
        ASSERT_NE(file_, -1);
        path_ = "/proc/self/fd/" + std::to_string(file_);
    }

    void TearDown() override {
        failing_calloc = failing_realloc = failing_strdup = failing_getdelim = 0;
        quarx_log = _quarx_utility_log;
        close(file_);
    }

    int read(const std::string& content) {
        std::ofstream(path_, std::ios::binary) << content;
        return conf_read_file_r(path_.c_str(), store_.get());
    }

    std::string entries() const {
        std::string all;
        for (unsigned i = 0; i < store_->count; ++i)
            all +=
                std::string("<") + store_->entries[i].name + "=" + store_->entries[i].value + ">";
        return all;
    }

    // What one file gives, as <name=value>..., when it can be read.
    std::string entries_of(const std::string& content) {
        store_ = new_store();
        return read(content) == 0 ? entries() : "(failed)";
    }

    int file_ = -1; // in memory
    std::string path_;
    Store store_ = new_store();
};

using ConfReader = ConfStore;

// --- Definitions ---

TEST_F(ConfReader, a_definition_ended_by_a_line_feed) {
    EXPECT_EQ(entries_of("QUARX_MAILNAMES_D /var/qmail/mailnames\n"),
              "<QUARX_MAILNAMES_D=/var/qmail/mailnames>");
    EXPECT_EQ(reported(), "");
}

TEST_F(ConfReader, a_definition_without_a_final_line_feed) {
    EXPECT_EQ(entries_of("A b"), "<A=b>");
}

TEST_F(ConfReader, a_blank_before_the_line_feed_keeps_both) {
    EXPECT_EQ(entries_of("HTTPD_SERVICE apache2 \n"), "<HTTPD_SERVICE=apache2 \n>");
}

TEST_F(ConfReader, two_blanks_before_the_line_feed_lose_the_line_feed_only) {
    EXPECT_EQ(entries_of("A b  \n"), "<A=b  >");
}

TEST_F(ConfReader, three_blanks_before_the_line_feed_keep_all) {
    EXPECT_EQ(entries_of("A b   \n"), "<A=b   \n>");
}

TEST_F(ConfReader, a_carriage_return_counts_as_a_blank) {
    EXPECT_EQ(entries_of("A b\r\n"), "<A=b\r\n>");
}

TEST_F(ConfReader, a_comment_after_one_blank) {
    EXPECT_EQ(entries_of("A b # note\n"), "<A=b>");
}

TEST_F(ConfReader, a_comment_right_behind_the_value) {
    EXPECT_EQ(entries_of("A b#note\n"), "<A=b>");
}

TEST_F(ConfReader, a_comment_after_two_blanks_keeps_them) {
    EXPECT_EQ(entries_of("A b  # note\n"), "<A=b  >");
}

TEST_F(ConfReader, inner_blanks_are_kept) {
    EXPECT_EQ(entries_of("A b c  d\te\n"), "<A=b c  d\te>");
}

TEST_F(ConfReader, a_value_of_one_character) {
    EXPECT_EQ(entries_of("A b\n"), "<A=b>");
}

TEST_F(ConfReader, white_space_before_the_name_and_before_the_value_is_skipped) {
    EXPECT_EQ(entries_of(" \t\v\f\rA \t\v\f\r b\n"), "<A=b>");
}

TEST_F(ConfReader, a_name_of_letters_digits_and_underscores) {
    EXPECT_EQ(entries_of("_aZ09_ b\n"), "<_aZ09_=b>");
}

TEST_F(ConfReader, a_later_definition_of_a_name_wins) {
    EXPECT_EQ(entries_of("A first\nB x\nA second\n"), "<A=second><B=x>");
}

TEST_F(ConfReader, names_differ_by_case) {
    EXPECT_EQ(entries_of("a lower\nA upper\n"), "<A=upper><a=lower>");
}

TEST_F(ConfReader, entries_end_up_sorted_by_name) {
    EXPECT_EQ(entries_of("C 3\nA 1\nB 2\n"), "<A=1><B=2><C=3>");
    EXPECT_EQ(store_->sorted, 1);
}

TEST_F(ConfReader, comments_and_blank_lines_are_ignored_in_silence) {
    EXPECT_EQ(entries_of("  # x\n#A b\n\n \t\n\r\n"), "");
    EXPECT_EQ(reported(), "");
}

TEST_F(ConfReader, an_empty_file_is_a_success) {
    EXPECT_EQ(entries_of(""), "");
    EXPECT_EQ(store_->capacity, 20U);
    EXPECT_EQ(store_->sorted, 1);
}

TEST_F(ConfReader, a_value_may_hold_bytes_above_127) {
    EXPECT_EQ(entries_of("A \xe4\xff\x80\n"), "<A=\xe4\xff\x80>");
}

TEST_F(ConfReader, a_line_ends_at_its_first_nul_byte) {
    EXPECT_EQ(entries_of("A b\0c\nB d\n"s), "<A=b><B=d>");
}

TEST_F(ConfReader, a_line_that_begins_with_a_nul_byte_is_empty) {
    EXPECT_EQ(entries_of("\0A b\nB c\n"s), "<B=c>");
    EXPECT_EQ(reported(), "");
}

TEST_F(ConfReader, a_file_is_read_over_what_the_store_holds) {
    ASSERT_EQ(conf_set_r("A", "old", store_.get()), 0);
    ASSERT_EQ(conf_set_r("Z", "kept", store_.get()), 0);
    ASSERT_EQ(read("B x\nA new\n"), 0);
    EXPECT_EQ(entries(), "<A=new><B=x><Z=kept>");
}

// --- Lines that define nothing ---

TEST_F(ConfReader, an_equals_sign_for_a_space) {
    EXPECT_EQ(entries_of("A=1\nB c\n"), "<B=c>");
    EXPECT_EQ(reported(),
              "[12]Invalid variable definition A=1\n\nExpected a space after variable name\n");
}

TEST_F(ConfReader, a_line_is_reported_from_its_name_on) {
    EXPECT_EQ(entries_of("  A-B c"), "");
    EXPECT_EQ(reported(),
              "[12]Invalid variable definition A-B c\nExpected a space after variable name\n");
}

TEST_F(ConfReader, a_line_without_a_name) {
    EXPECT_EQ(entries_of("= b\n"), "");
    EXPECT_EQ(reported(),
              "[12]Invalid variable definition = b\n\nExpected a space after variable name\n");
}

TEST_F(ConfReader, a_comment_right_behind_the_name) {
    EXPECT_EQ(entries_of("A#b\n"), "");
    EXPECT_EQ(reported(),
              "[12]Invalid variable definition A#b\n\nExpected a space after variable name\n");
}

TEST_F(ConfReader, a_name_with_a_byte_above_127) {
    EXPECT_EQ(entries_of("\xe4 b\n"), "");
    EXPECT_EQ(reported(),
              "[12]Invalid variable definition \xe4 b\n\nExpected a space after variable name\n");
}

TEST_F(ConfReader, a_name_alone_on_its_line) {
    EXPECT_EQ(entries_of("NAME\n"), "");
    EXPECT_EQ(reported(), "[12]Invalid variable definition NAME\n\nExpected a value");
}

TEST_F(ConfReader, a_name_alone_at_the_end_of_the_file) {
    EXPECT_EQ(entries_of("NAME"), "");
    EXPECT_EQ(reported(),
              "[12]Invalid variable definition NAME\nExpected a space after variable name\n");
}

TEST_F(ConfReader, a_name_and_a_blank_at_the_end_of_the_file) {
    EXPECT_EQ(entries_of("NAME "), "");
    EXPECT_EQ(reported(), "[12]Invalid variable definition NAME \nExpected a value");
}

TEST_F(ConfReader, a_name_and_a_comment) {
    EXPECT_EQ(entries_of("NAME # b\n"), "");
    EXPECT_EQ(reported(), "[12]Invalid variable definition NAME # b\n\nExpected a value");
}

// --- Odd and large files ---

TEST_F(ConfReader, a_line_of_ten_megabytes) {
    const std::string value(10'000'000, 'v');
    ASSERT_EQ(read("BIG " + value + "\nSMALL s\n"), 0);
    EXPECT_TRUE(value_of(store_, "BIG") == value);
    EXPECT_EQ(value_of(store_, "SMALL"), "s");
}

TEST_F(ConfReader, a_line_of_ten_megabytes_that_defines_nothing) {
    ASSERT_EQ(read(std::string(10'000'000, 'n') + "\nSMALL s\n"), 0);
    EXPECT_EQ(entries(), "<SMALL=s>");
}

TEST_F(ConfReader, more_variables_than_the_first_slots_hold) {
    std::string content;
    for (int i = 0; i < 5000; ++i)
        content += "V" + std::to_string(i) + " value" + std::to_string(i) + "\n";
    ASSERT_EQ(read(content), 0);
    ASSERT_EQ(store_->count, 5000U);
    EXPECT_EQ(store_->capacity, 5120U);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(value_of(store_, ("V" + std::to_string(i)).c_str()), "value" + std::to_string(i));
}

TEST_F(ConfReader, a_missing_file) {
    errno = 0;
    EXPECT_EQ(conf_read_file_r("/nowhere/qrx.conf", store_.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(reported(), "[12]unable to open configuration file /nowhere/qrx.conf: No such file "
                          "or directory\n");
    EXPECT_EQ(store_->capacity, 20U);
}

TEST_F(ConfReader, a_directory_for_a_file) {
    errno = 0;
    EXPECT_EQ(conf_read_file_r(testing::TempDir().c_str(), store_.get()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(reported(), "[12]Unable to read configuration file: Is a directory");
}

TEST_F(ConfReader, the_librarys_first_log_level_drops_every_report) {
    quarx_log = _quarx_utility_log;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    conf_read_file_r("/nowhere/qrx.conf", store_.get());
    conf_read_file_r(testing::TempDir().c_str(), store_.get());
    read("A=1\nB\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(ConfReader, no_descriptor_is_left_open) {
    const int before = dup(STDIN_FILENO);
    close(before);
    read("A b\n");
    conf_read_file_r("/nowhere/qrx.conf", store_.get());
    conf_read_file_r(testing::TempDir().c_str(), store_.get());
    failing_strdup = 1;
    read("B c\n");
    const int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(ConfReader, the_file_is_closed_on_exec) {
    opened_without_cloexec = 0;
    ASSERT_EQ(read("A b\n"), 0);
    EXPECT_EQ(opened_without_cloexec, 0);
}

// --- Memory runs out ---

TEST_F(ConfReader, no_memory_for_a_first_array) {
    failing_calloc = 1;
    errno = 0;
    EXPECT_EQ(conf_read_file_r("/nowhere/qrx.conf", store_.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(store_->entries, nullptr);
    EXPECT_EQ(store_->capacity, 0U);
    EXPECT_EQ(reported(), "");
}

TEST_F(ConfReader, no_memory_for_a_line_leaves_those_before_it_sorted) {
    failing_getdelim = 3;
    EXPECT_EQ(read("B c\nA b\nC d\n"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(reported(), "[12]Unable to read configuration file: Cannot allocate memory");
    EXPECT_EQ(entries(), "<A=b><B=c>");
    EXPECT_EQ(store_->sorted, 1);
}

TEST_F(ConfReader, no_memory_for_a_definition_ends_the_reading) {
    failing_strdup = 3;
    EXPECT_EQ(read("A b\nB c\nC d\n"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(reported(), "[12]Unable to form configuration: Cannot allocate memory");
    EXPECT_EQ(entries(), "<A=b>");
}

TEST_F(ConfStore, no_memory_for_a_copy_leaves_the_entries_as_they_were) {
    ASSERT_EQ(conf_set_r("A", "b", store_.get()), 0);
    for (const int failing : {1, 2}) {
        failing_strdup = failing;
        errno = 0;
        EXPECT_EQ(conf_set_r("A", "new", store_.get()), -1) << "copy " << failing;
        EXPECT_EQ(errno, ENOMEM) << "copy " << failing;
        failing_strdup = 0;
    }
    EXPECT_EQ(entries(), "<A=b>");
    EXPECT_EQ(reported(), "[12]Unable to form configuration: Cannot allocate memory"
                          "[12]Unable to form configuration: Cannot allocate memory");
}

TEST_F(ConfStore, no_memory_to_grow_leaves_the_store_as_it_was) {
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(conf_set_r(("V" + std::to_string(i)).c_str(), "x", store_.get()), 0);
    failing_realloc = 1;
    errno = 0;
    EXPECT_EQ(conf_set_r("NEW", "x", store_.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(reported(), "[12]Unable to read configuration: Cannot allocate memory");
    EXPECT_EQ(store_->capacity, 20U);
    EXPECT_EQ(store_->count, 20U);
    EXPECT_EQ(value_of(store_, "V19"), "x");
}

// --- Stores ---

TEST_F(ConfStore, first_use_makes_20_zeroed_slots) {
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 20U);
    EXPECT_EQ(store_->count, 0U);
    EXPECT_EQ(store_->sorted, 1);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(store_->entries[i].name, nullptr) << "slot " << i;
        EXPECT_EQ(store_->entries[i].value, nullptr) << "slot " << i;
    }
}

TEST_F(ConfStore, room_for_one_more_is_no_reason_to_grow) {
    for (int i = 0; i < 19; ++i)
        ASSERT_EQ(conf_set_r(("V" + std::to_string(i)).c_str(), "x", store_.get()), 0);
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 20U);
}

TEST_F(ConfStore, a_full_store_doubles_and_zeroes_the_new_slots) {
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(conf_set_r(("V" + std::to_string(i)).c_str(), "x", store_.get()), 0);
    EXPECT_EQ(store_->capacity, 20U);
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 40U);
    EXPECT_EQ(store_->count, 20U);
    for (int i = 20; i < 40; ++i) {
        EXPECT_EQ(store_->entries[i].name, nullptr) << "slot " << i;
        EXPECT_EQ(store_->entries[i].value, nullptr) << "slot " << i;
    }
}

TEST_F(ConfStore, a_capacity_whose_double_is_not_enough_grows_to_the_count_and_20) {
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    store_->capacity = 5;
    store_->count = 10;
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 30U);
}

TEST_F(ConfStore, a_store_that_cannot_grow_any_more) {
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    store_->capacity = store_->count = UINT_MAX;
    errno = 0;
    EXPECT_EQ(conf_init_r(store_.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(reported(), "[12]Unable to read configuration: Cannot allocate memory");
    store_->capacity = 20;
    store_->count = 0;
}

TEST_F(ConfStore, a_capacity_that_cannot_double_grows_to_the_bound) {
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    store_->capacity = store_->count = UINT_MAX / 2 + 1;
    failing_realloc = 1; // the bound is asked for, and refused
    EXPECT_EQ(conf_init_r(store_.get()), -1);
    EXPECT_EQ(asked_of_realloc, size_t{UINT_MAX} * sizeof(conf_entry));
    EXPECT_EQ(store_->capacity, UINT_MAX / 2 + 1);
    store_->capacity = 20;
    store_->count = 0;
}

TEST_F(ConfStore, a_count_that_20_can_not_be_added_to_grows_to_the_bound) {
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    store_->capacity = 5;
    store_->count = UINT_MAX - 10;
    failing_realloc = 1;
    EXPECT_EQ(conf_init_r(store_.get()), -1);
    EXPECT_EQ(asked_of_realloc, size_t{UINT_MAX} * sizeof(conf_entry));
    store_->capacity = 20;
    store_->count = 0;
}

TEST_F(ConfStore, a_set_value_is_a_copy) {
    char name[] = "A";
    char value[] = "b";
    ASSERT_EQ(conf_set_r(name, value, store_.get()), 0);
    name[0] = 'X';
    value[0] = 'y';
    EXPECT_EQ(value_of(store_, "A"), "b");
}

TEST_F(ConfStore, a_value_can_be_set_from_the_store_itself) {
    ASSERT_EQ(conf_set_r("A", "b", store_.get()), 0);
    ASSERT_EQ(conf_set_r("A", conf_get_r("A", store_.get()), store_.get()), 0);
    EXPECT_EQ(value_of(store_, "A"), "b");
}

TEST_F(ConfStore, a_new_name_leaves_the_store_unsorted) {
    ASSERT_EQ(conf_set_r("B", "2", store_.get()), 0);
    EXPECT_EQ(store_->count, 1U);
    EXPECT_EQ(store_->sorted, 0);
}

TEST_F(ConfStore, a_known_name_leaves_count_and_order_alone) {
    ASSERT_EQ(conf_set_r("B", "2", store_.get()), 0);
    ASSERT_EQ(conf_set_r("A", "1", store_.get()), 0);
    conf_finalize_r(store_.get());
    ASSERT_EQ(conf_set_r("B", "3", store_.get()), 0);
    EXPECT_EQ(entries(), "<A=1><B=3>");
    EXPECT_EQ(store_->sorted, 1);
}

TEST_F(ConfStore, an_empty_value_is_a_value) {
    ASSERT_EQ(conf_set_r("A", "", store_.get()), 0);
    EXPECT_EQ(value_of(store_, "A"), "");
}

TEST_F(ConfStore, names_are_found_before_and_after_sorting) {
    for (const char* const name : {"D", "B", "C", "A"})
        ASSERT_EQ(conf_set_r(name, name, store_.get()), 0);
    EXPECT_EQ(entries(), "<D=D><B=B><C=C><A=A>");
    for (const char* const name : {"A", "B", "C", "D"})
        EXPECT_EQ(value_of(store_, name), name) << "unsorted";
    EXPECT_EQ(value_of(store_, "E"), "(null)");
    conf_finalize_r(store_.get());
    EXPECT_EQ(entries(), "<A=A><B=B><C=C><D=D>");
    for (const char* const name : {"A", "B", "C", "D"})
        EXPECT_EQ(value_of(store_, name), name) << "sorted";
    EXPECT_EQ(value_of(store_, "E"), "(null)");
}

TEST_F(ConfStore, a_store_marked_as_sorted_is_searched_by_halves) {
    for (const char* const name : {"D", "B", "C", "A"})
        ASSERT_EQ(conf_set_r(name, name, store_.get()), 0);
    store_->sorted = 1; // which isn't true, so that a search by halves misses the first
    EXPECT_EQ(value_of(store_, "D"), "(null)");
    store_->sorted = 0;
    EXPECT_EQ(value_of(store_, "D"), "D");
}

TEST_F(ConfStore, a_store_marked_as_sorted_is_left_in_its_order) {
    ASSERT_EQ(conf_set_r("B", "2", store_.get()), 0);
    ASSERT_EQ(conf_set_r("A", "1", store_.get()), 0);
    store_->sorted = 1;
    conf_finalize_r(store_.get());
    EXPECT_EQ(entries(), "<B=2><A=1>");
}

TEST_F(ConfStore, a_new_store_has_no_names_and_can_be_sorted) {
    EXPECT_EQ(value_of(store_, "A"), "(null)");
    conf_finalize_r(store_.get());
    EXPECT_EQ(store_->sorted, 1);
    EXPECT_EQ(store_->entries, nullptr);
}

TEST_F(ConfStore, nothing_and_a_new_store_can_be_freed) {
    errno = EDOM;
    conf_free_r(nullptr);
    conf_free_r(new_store().release());
    EXPECT_EQ(errno, EDOM);
}

TEST_F(ConfStore, freeing_walks_the_whole_capacity) {
    ASSERT_EQ(conf_init_r(store_.get()), 0);
    store_->entries[19] = {strdup("behind"), strdup("the count")};
    store_.reset(); // the leak checker of the sanitized build tells
    EXPECT_EQ(store_, nullptr);
}

// --- Against the slow reader ---

TEST_F(ConfReader, random_files_are_read_as_the_slow_reader_reads_them) {
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 random{seed};
    const std::string alphabet = "AB_1  \t\n\n\r##=\0\xe4xyz"s;
    for (int round = 0; round < 5000; ++round) {
        std::string content;
        for (size_t length = random() % 80; length > 0; --length)
            content += alphabet[random() % alphabet.size()];
        std::string wanted;
        for (const auto& [name, value] : read_slowly(content))
            wanted += "<" + name + "=" + value + ">";
        ASSERT_EQ(entries_of(content), wanted)
            << "seed " << seed << ", file " << testing::PrintToString(content);
    }
}

} // namespace
