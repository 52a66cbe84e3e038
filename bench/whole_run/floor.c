// The floor: what a run costs at least when it is written down as plain calls of the C library and
// the stock client library of the database.
//
// It makes the calls of a run in their order and with their bytes: the message's copy, the
// statements, the forward, the reply's file with its attachments, a sendmail for each mail, the
// clean-up. It judges nothing: the sender and the subject are taken from the first such lines of
// the message as they stand, no keyword is looked for, nothing is decoded, recoded or escaped, and
// any failure ends it with status 1.
#define _GNU_SOURCE
#include <fcntl.h>
#include <mysql.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kBlock = 65536, kLine = 45, kMostAddresses = 64 };

static char copy_name[] = "/tmp/qrx-autoresponder-XXXXXX";
static char reply_name[] = "/tmp/qrx-response-uu-XXXXXX";
static char sender[256], subject[256], recipient[256], domain[256], mailname[256];
static MYSQL* connection;

static void must(int good) {
    if (!good)
        exit(1);
}

static void write_all(int fd, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        must(written > 0);
        bytes += written;
        size -= (size_t)written;
    }
}

// The text between two marks, the first behind `field` at the start of a header line.
static void take_field(char* value, const char* message, const char* field, const char* open,
                       const char* close) {
    const char* line = strstr(message, field);
    must(line != NULL);
    const char* begin = strstr(line + 1, open);
    must(begin != NULL);
    begin += strlen(open);
    const size_t length = strcspn(begin, close);
    must(length < 256);
    memcpy(value, begin, length);
    value[length] = '\0';
}

static void take_message(void) {
    static char head[kBlock + 1];
    static char block[kBlock];
    const int copy = mkostemp(copy_name, O_CLOEXEC);
    must(copy >= 0);
    ssize_t got;
    for (size_t total = 0; (got = read(STDIN_FILENO, block, kBlock)) > 0; total += (size_t)got) {
        if (total == 0)
            memcpy(head + 1, block, (size_t)got < kBlock ? (size_t)got : kBlock - 1);
        write_all(copy, block, (size_t)got);
    }
    write_all(copy, "\n", 1);
    close(copy);
    head[0] = '\n';
    take_field(sender, head, "\nFrom:", "<", ">");
    take_field(subject, head, "\nSubject:", " ", "\n");
    snprintf(recipient, sizeof recipient, "%s", getenv("RESP_RECIPIENT"));
    snprintf(mailname, sizeof mailname, "%s", recipient);
    char* at = strchr(mailname, '@');
    must(at != NULL);
    *at = '\0';
    snprintf(domain, sizeof domain, "%s", at + 1);
}

// The panel's configuration and the size limit of mails are there to be read; what they say is not
// asked here.
static void read_settings(const char* path) {
    FILE* file = fopen(path, "re");
    if (file == NULL)
        return;
    char line[256];
    while (fgets(line, sizeof line, file) != NULL) {
    }
    fclose(file);
}

static void connect_to_server(void) {
    char password[100] = "";
    FILE* file = fopen("/etc/qrx/.qrx.shadow", "re");
    must(file != NULL && fgets(password, sizeof password, file) != NULL);
    fclose(file);
    password[strcspn(password, "\n")] = '\0';
    connection = mysql_init(NULL);
    must(mysql_real_connect(connection, "localhost", "admin", password, "qrx", 0, NULL, 0) != NULL);
}

static void send_statement(const char* format, va_list values) {
    char statement[4096];
    const int length = vsnprintf(statement, sizeof statement, format, values);
    must(length > 0 && (size_t)length < sizeof statement &&
         mysql_real_query(connection, statement, (unsigned long)length) == 0);
}

static void execute(const char* format, ...) {
    va_list values;
    va_start(values, format);
    send_statement(format, values);
    va_end(values);
}

static MYSQL_RES* query(const char* format, ...) {
    va_list values;
    va_start(values, format);
    send_statement(format, values);
    va_end(values);
    MYSQL_RES* result = mysql_store_result(connection);
    must(result != NULL);
    return result;
}

// Whether the responder may answer; counts the answer.
static int may_answer(const char* responder, int most) {
    execute("delete from resp_freq where rn_id=%s and (TO_DAYS(NOW())-TO_DAYS(time_resp))>0",
            responder);
    mysql_free_result(query("select COUNT(*) from resp_freq where rn_id=%s", responder));
    MYSQL_RES* result =
        query("select num from resp_freq where rn_id=%s and email='%s'", responder, sender);
    MYSQL_ROW row = mysql_fetch_row(result);
    int answer = 1;
    if (row == NULL)
        execute("insert into resp_freq set rn_id=%s, email='%s', num=1", responder, sender);
    else if (atoi(row[0]) < most)
        execute("update resp_freq set num=%s+1 where rn_id=%s and email='%s'", row[0], responder,
                sender);
    else
        answer = 0;
    mysql_free_result(result);
    return answer;
}

static void send_mail(const char* file, char** arguments) {
    const int input = open(file, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    must(input >= 0);
    const pid_t child = fork();
    must(child >= 0);
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);
        dup2(input, STDIN_FILENO);
        close_range(3, ~0U, 0);
        execv(arguments[0], arguments);
        _exit(255);
    }
    close(input);
    must(waitpid(child, NULL, 0) == child);
}

static void forward_message(const char* responder) {
    char* arguments[kMostAddresses + 4] = {"/usr/sbin/sendmail", "-f", recipient};
    MYSQL_RES* result = query("select address from resp_forward where rn_id=%s", responder);
    int count = 3;
    for (MYSQL_ROW row; count < kMostAddresses + 3 && (row = mysql_fetch_row(result)) != NULL;)
        arguments[count++] = row[0];
    if (count > 3)
        send_mail(copy_name, arguments);
    mysql_free_result(result);
}

static void make_boundary(char* boundary) {
    boundary += sprintf(boundary, "--------=_");
    for (int i = 0; i < 29; ++i) {
        const int v = rand() % 52;
        *boundary++ = (char)(v < 26 ? 'A' + v : 'G' + v);
    }
    *boundary = '\0';
}

static size_t encode(const unsigned char* bytes, size_t size, char* text) {
    static const char letters[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    char* end = text;
    for (size_t at = 0; at < size; at += 3) {
        const size_t left = size - at;
        const unsigned group = (unsigned)bytes[at] << 16 | (left > 1 ? bytes[at + 1] << 8 : 0) |
                               (left > 2 ? bytes[at + 2] : 0);
        *end++ = letters[group >> 18];
        *end++ = letters[group >> 12 & 63];
        *end++ = left > 1 ? letters[group >> 6 & 63] : '=';
        *end++ = left > 2 ? letters[group & 63] : '=';
    }
    *end++ = '\n';
    return (size_t)(end - text);
}

static void attach(int reply, const char* path, const char* name, const char* boundary) {
    static unsigned char bytes[kLine * 1024];
    static char text[(kLine / 3 * 4 + 1) * 1024];
    dprintf(reply,
            "--%s\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n"
            "Content-Disposition: attachment;\n\tfilename=\"%s\"\n\n",
            boundary, name);
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    must(file >= 0);
    for (ssize_t got; (got = read(file, bytes, sizeof bytes)) > 0;) {
        size_t length = 0;
        for (ssize_t at = 0; at < got; at += kLine)
            length +=
                encode(bytes + at, got - at < kLine ? (size_t)(got - at) : kLine, text + length);
        write_all(reply, text, length);
    }
    close(file);
    write_all(reply, "\n", 1);
}

static void write_reply(MYSQL_ROW responder, MYSQL_RES* attachments, const char* directory) {
    char boundary[64], multipart[256] = "", header[2048];
    make_boundary(boundary);
    const int reply = mkostemp(reply_name, O_CLOEXEC);
    must(reply >= 0);
    const int has_attachments = mysql_num_rows(attachments) != 0;
    if (has_attachments)
        snprintf(multipart, sizeof multipart,
                 "Content-Type: multipart/mixed;\n\tboundary=\"%s\"\n\n--%s\n", boundary, boundary);
    const int length = snprintf(
        header, sizeof header,
        "From: %s\nTo: %s\nMIME-Version: 1.0\nSubject: Re: %s\n%sContent-Type: %s; charset=\"%s\"\n"
        "Content-Transfer-Encoding: 8bit\nContent-Disposition: inline\n\n%s\n\n\n",
        recipient, sender, subject, multipart, responder[10], responder[9], responder[3]);
    must(length > 0 && (size_t)length < sizeof header);
    write_all(reply, header, (size_t)length);
    for (MYSQL_ROW row; (row = mysql_fetch_row(attachments)) != NULL;) {
        char path[4096];
        struct stat status;
        snprintf(path, sizeof path, "%s/%s", directory, row[0]);
        must(stat(path, &status) == 0);
        attach(reply, path, row[0], boundary);
    }
    if (has_attachments)
        dprintf(reply, "--%s--\n", boundary);
    read_settings("/var/qmail/control/databytes");
    close(reply);
}

static void answer(MYSQL_ROW responder, const char* directory) {
    MYSQL_RES* attachments = query("select filename from resp_attach where rn_id=%s", responder[0]);
    write_reply(responder, attachments, directory);
    mysql_free_result(attachments);
    char* arguments[] = {"/usr/sbin/sendmail", "-f", recipient, sender, NULL};
    send_mail(reply_name, arguments);
    unlink(reply_name);
    memset(reply_name + sizeof reply_name - 7, 'X', 6);
}

int main(void) {
    signal(SIGPIPE, SIG_IGN);
    read_settings("/etc/qrx/qrx.conf");
    take_message();
    connect_to_server();
    execute("SET NAMES utf8");
    MYSQL_RES* mailbox = query("select m.id, m.mail_name, d.name from mail m, domains d where "
                               "m.dom_id=d.id and d.name='%s' and m.mail_name='%s'",
                               domain, mailname);
    MYSQL_ROW row = mysql_fetch_row(mailbox);
    must(row != NULL);
    char directory[2048];
    snprintf(directory, sizeof directory, "/var/qmail/mailnames/%s/%s/@attachments", row[2],
             row[1]);
    MYSQL_RES* responders = query(
        "select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, subject, reply_to, "
        "charset, content_type from mail_resp where mn_id=%s",
        row[0]);
    while ((row = mysql_fetch_row(responders)) != NULL) {
        if (!may_answer(row[0], atoi(row[5])))
            continue;
        forward_message(row[0]);
        answer(row, directory);
    }
    mysql_free_result(responders);
    mysql_free_result(mailbox);
    mysql_close(connection);
    unlink(copy_name);
    return 0;
}
