// The interface as a caller meets it: strings, ownership, views, lists of any length.
#include "lib/mime/mimelib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

namespace {

std::string text_of(const DwString& text) {
    return {text.data(), text.length()};
}

DwString string_of(const std::string& text) {
    return {text.data(), text.size()};
}

std::unique_ptr<DwMessage> parsed(const DwString& text) {
    DwInitialize();
    std::unique_ptr<DwMessage> message(DwMessage::NewMessage(text, nullptr));
    message->Parse();
    return message;
}

bool lies_in(const DwString& part, const DwString& whole) {
    return part.data() >= whole.data() &&
           part.data() + part.length() <= whole.data() + whole.length();
}

TEST(DwString, IsEmptyByDefault) {
    const DwString empty;
    EXPECT_EQ(empty.length(), 0u);
    EXPECT_NE(empty.data(), nullptr);
    EXPECT_TRUE(empty == "");
}

TEST(DwString, KeepsNulBytes) {
    EXPECT_EQ(text_of(DwString("a\0b", 3)), std::string("a\0b", 3));
}

TEST(DwString, ComparesWithTextsByAllItsBytes) {
    EXPECT_TRUE(DwString("charset") == "charset");
    EXPECT_TRUE(DwString("charset") != "charse");
    EXPECT_TRUE(DwString("charse") != "charset");
    EXPECT_TRUE(DwString("a\0b", 3) != "a");
}

TEST(DwString, CopiesShareTheirBytes) {
    const DwString original("text");
    const DwString copy = original; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.data(), original.data());
}

TEST(DwString, PartsShareTheirBytesAndAreCutToWhatIsThere) {
    const DwString whole("header body");
    EXPECT_EQ(DwString(whole, 7, 4).data(), whole.data() + 7);
    EXPECT_EQ(text_of(DwString(whole, 7, 100)), "body");
    EXPECT_EQ(text_of(DwString(whole, 11, 1)), "");
    EXPECT_EQ(text_of(DwString(whole, 100, 1)), "");
    EXPECT_EQ(text_of(DwString(DwString(whole, 2, 6), 5, 5)), "b");
}

TEST(DwString, AppendingLeavesCopiesAlone) {
    DwString text("abc");
    const DwString copy = text;
    text.append("def", 3);
    EXPECT_EQ(text_of(text), "abcdef");
    EXPECT_EQ(text_of(copy), "abc");
}

TEST(DwString, AppendingToAPartLeavesTheWholeAlone) {
    const DwString whole("abcdef");
    DwString part(whole, 1, 2);
    part.append("X", 1);
    EXPECT_EQ(text_of(part), "bcX");
    EXPECT_EQ(text_of(whole), "abcdef");
}

TEST(DwString, APartThatIsLeftAloneGrowsInPlace) {
    DwString text("abcdef");
    text = DwString(text, 1, 2);
    const char* bytes = text.data();
    text.append("XY", 2);
    EXPECT_EQ(text_of(text), "bcXY");
    EXPECT_EQ(text.data(), bytes);
    text.append(std::string(1000, 'z').data(), 1000);
    EXPECT_EQ(text_of(text), "bcXY" + std::string(1000, 'z'));
}

TEST(DwString, AppendingNothingChangesNothing) {
    DwString text;
    text.append(nullptr, 0);
    EXPECT_EQ(text.length(), 0u);
    text.append("a", 1);
    text.append("", 0);
    EXPECT_EQ(text_of(text), "a");
}

TEST(DwString, ReservedRoomIsNotMovedByAppending) {
    DwString text;
    text.reserve(100000);
    const char* bytes = text.data();
    for (int i = 0; i < 100000; ++i)
        text.append("x", 1);
    EXPECT_EQ(text.data(), bytes);
    EXPECT_EQ(text.length(), 100000u);
}

TEST(DwString, ReservingKeepsTheTextAndLeavesCopiesAlone) {
    DwString text("abc");
    const DwString copy = text;
    text.reserve(1000);
    EXPECT_EQ(text_of(text), "abc");
    EXPECT_NE(text.data(), copy.data());
    text.reserve(1);
    EXPECT_EQ(text_of(text), "abc");
}

// Doubling the room: a million bytes are at most twenty times as many moves as one.
TEST(DwString, GrowingMovesSeldom) {
    DwString text;
    int moves = 0;
    for (int i = 0; i < 1000000; ++i) {
        const char* bytes = text.data();
        text.append("x", 1);
        moves += text.data() != bytes ? 1 : 0;
    }
    EXPECT_LE(moves, 22);
}

TEST(DwString, LowerCaseIsOfAsciiLettersAlone) {
    DwString text("CHARSET-Az\xc4\xd6@[`{");
    const DwString copy = text;
    text.ConvertToLowerCase();
    EXPECT_EQ(text_of(text), "charset-az\xc4\xd6@[`{");
    EXPECT_EQ(text_of(copy), "CHARSET-Az\xc4\xd6@[`{");
    DwString empty;
    empty.ConvertToLowerCase();
    EXPECT_EQ(empty.length(), 0u);
}

TEST(DwMessage, HasNothingBeforeParsing) {
    const std::unique_ptr<DwMessage> message(
        DwMessage::NewMessage("Subject: s\nFrom: a@b\n\nbody", nullptr));
    EXPECT_FALSE(message->Headers().HasSubject());
    EXPECT_FALSE(message->Headers().HasFrom());
    EXPECT_EQ(message->Body().AsString().length(), 0u);
    EXPECT_EQ(message->Body().FirstBodyPart(), nullptr);
}

TEST(DwMessage, ParsingAgainKeepsWhatWasHandedOut) {
    const auto message = parsed("Subject: s\n\nbody");
    const DwText& subject = message->Headers().Subject();
    message->Parse();
    EXPECT_EQ(&message->Headers().Subject(), &subject);
    EXPECT_EQ(text_of(subject.AsString()), "s");
}

TEST(DwMessage, LivesOnWhenTheTextIsGone) {
    auto text = std::make_unique<DwString>("Subject: s\n\nbody");
    const auto message = parsed(*text);
    text->append("more", 4);
    text.reset();
    EXPECT_EQ(text_of(message->Body().AsString()), "body");
}

TEST(DwMessage, BodiesAndPlainFieldsAreViewsIntoTheText) {
    const DwString text(
        "Subject: one line\nDate: d\nContent-Type: multipart/mixed; boundary=\"b\"\n"
        "From: x <a.b@c.d>\n\n--b\nSubject: s\n\npart\n--b--\n");
    const auto message = parsed(text);
    const DwHeaders& headers = message->Headers();
    EXPECT_TRUE(lies_in(message->Body().AsString(), text));
    EXPECT_TRUE(lies_in(headers.Subject().AsString(), text));
    EXPECT_TRUE(lies_in(headers.Date().AsString(), text));
    EXPECT_TRUE(lies_in(headers.From().FirstMailbox()->LocalPart(), text));
    EXPECT_TRUE(lies_in(headers.From().FirstMailbox()->Domain(), text));
    EXPECT_TRUE(lies_in(headers.ContentType().FirstParameter()->Value(), text));
    EXPECT_TRUE(lies_in(message->Body().FirstBodyPart()->Body().AsString(), text));
}

TEST(DwMessage, UnfoldedFieldsHaveATextOfTheirOwn) {
    const DwString text("Subject: two\n lines\n\n");
    const auto message = parsed(text);
    EXPECT_EQ(text_of(message->Headers().Subject().AsString()), "two lines");
    EXPECT_FALSE(lies_in(message->Headers().Subject().AsString(), text));
    EXPECT_EQ(message->Headers().Subject().AsString().data(),
              message->Headers().Subject().AsString().data());
}

TEST(DwHeaders, AccessorsOfMissingFieldsGiveEmptyOnes) {
    const auto message = parsed("X: y\n\nbody");
    const DwHeaders& headers = message->Headers();
    EXPECT_FALSE(headers.HasReplyTo() || headers.HasFrom() || headers.HasSubject() ||
                 headers.HasDate() || headers.HasContentType() ||
                 headers.HasContentTransferEncoding());
    EXPECT_EQ(headers.ReplyTo().FirstAddress(), nullptr);
    EXPECT_EQ(headers.From().FirstMailbox(), nullptr);
    EXPECT_EQ(headers.Subject().AsString().length(), 0u);
    EXPECT_EQ(headers.Date().AsString().length(), 0u);
    EXPECT_EQ(headers.ContentType().Type(), DwMime::kTypeNull);
    EXPECT_EQ(headers.ContentType().FirstParameter(), nullptr);
    EXPECT_EQ(headers.ContentTransferEncoding().AsEnum(), DwMime::kCteNull);
}

TEST(DwAddressList, WalkingTwiceMeetsTheSameElements) {
    const auto message = parsed("Reply-To: bad, g:;, a@b\n\n");
    const DwAddressList& list = message->Headers().ReplyTo();
    DwAddress* first = list.FirstAddress();
    ASSERT_NE(first, nullptr);
    DwAddress* second = first->Next();
    ASSERT_NE(second, nullptr);
    DwAddress* third = second->Next();
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->Next(), nullptr);
    EXPECT_EQ(third->Next(), nullptr);
    EXPECT_EQ(list.FirstAddress(), first);
    EXPECT_EQ(first->Next(), second);
    EXPECT_EQ(second->Next(), third);
    EXPECT_TRUE(second->IsGroup() && !second->IsMailbox());
    EXPECT_EQ(text_of(static_cast<DwMailbox*>(third)->Domain()), "b");
}

TEST(DwBodyPart, WalkingTwiceMeetsTheSameParts) {
    const auto message =
        parsed("Content-Type: multipart/x; boundary=b\n\n--b\n\n1\n--b\n\n2\n--b--");
    DwBodyPart* first = message->Body().FirstBodyPart();
    ASSERT_NE(first, nullptr);
    DwBodyPart* second = first->Next();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->Next(), nullptr);
    EXPECT_EQ(message->Body().FirstBodyPart(), first);
    EXPECT_EQ(first->Next(), second);
}

TEST(DwParameter, WalkingTwiceMeetsTheSameParameters) {
    const auto message = parsed("Content-Type: text/plain; a=b; c=d\n\n");
    const DwMediaType& type = message->Headers().ContentType();
    DwParameter* second = type.FirstParameter()->Next();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(type.FirstParameter()->Next(), second);
    EXPECT_EQ(second->Next(), nullptr);
}

std::string repeated(const std::string& text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

constexpr size_t kMany = 100000;

TEST(DwMessage, ListsOfAnyLengthAreWalkedAndFreed) {
    const auto message = parsed(string_of("From: " + repeated("x,", kMany) +
                                          "\nReply-To: " + repeated("a@b,", kMany) +
                                          "\nContent-Type: multipart/x" + repeated(";a=b", kMany) +
                                          ";boundary=b\n\n" + repeated("--b\n\n\n", kMany)));
    size_t mailboxes = 0, addresses = 0, parameters = 0, parts = 0;
    const DwHeaders& headers = message->Headers();
    for (DwAddress* a = headers.From().FirstMailbox(); a; a = a->Next())
        ++mailboxes;
    for (DwAddress* a = headers.ReplyTo().FirstAddress(); a; a = a->Next())
        ++addresses;
    for (DwParameter* p = headers.ContentType().FirstParameter(); p; p = p->Next())
        ++parameters;
    for (DwBodyPart* p = message->Body().FirstBodyPart(); p; p = p->Next())
        ++parts;
    EXPECT_EQ(mailboxes, kMany);
    EXPECT_EQ(addresses, kMany);
    EXPECT_EQ(parameters, kMany + 1);
    EXPECT_EQ(parts, kMany);
}

TEST(DwMessage, WalkingAnyLengthTwiceMeetsTheSameElements) {
    std::string list = "From: ";
    for (size_t i = 0; i < 3000; ++i)
        list += "a" + std::to_string(i) + "@b,";
    const auto message = parsed(string_of(list));
    for (int walk = 0; walk < 2; ++walk) {
        size_t seen = 0;
        for (DwAddress* a = message->Headers().From().FirstMailbox(); a; a = a->Next())
            EXPECT_EQ(text_of(static_cast<DwMailbox*>(a)->LocalPart()),
                      "a" + std::to_string(seen++));
        EXPECT_EQ(seen, 3000u);
    }
}

// A node that is counted.
struct Counted {
    explicit Counted(size_t its_number) : number(its_number) { ++alive; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --alive; }

    static inline size_t alive = 0;
    size_t number;
    Counted* next_ = nullptr;
    DwChain<Counted>* chain_ = nullptr;
};

class Chain : public testing::Test {
protected:
    // Walks all `size` nodes of `chain` and returns how many were alive at most.
    static size_t walk(const DwChain<Counted>& chain, size_t size) {
        size_t number = 0;
        size_t most = 0;
        for (Counted* node = chain.first(); node; node = DwChain<Counted>::behind(*node)) {
            EXPECT_EQ(node->number, number++);
            most = std::max(most, Counted::alive);
        }
        EXPECT_EQ(number, size);
        return most;
    }

    static DwChain<Counted>::Source numbers(size_t size) {
        return [number = size_t{0}, size]() mutable {
            return number == size ? nullptr : std::make_unique<Counted>(number++);
        };
    }
};

TEST_F(Chain, KeepsTheFirstThousandAndOneMore) {
    {
        const DwChain<Counted> chain(numbers(5000));
        EXPECT_EQ(walk(chain, 5000), DwChain<Counted>::kKept + 1);
        EXPECT_EQ(walk(chain, 5000), DwChain<Counted>::kKept + 1);
    }
    EXPECT_EQ(Counted::alive, 0u);
}

TEST_F(Chain, LengthsAboutTheThousandAreWalkedWhole) {
    for (const size_t size : {0u, 1u, 999u, 1000u, 1001u, 1002u}) {
        const DwChain<Counted> chain(numbers(size));
        walk(chain, size);
        walk(chain, size);
    }
}

TEST_F(Chain, TheFirstThousandStayWhereTheyAre) {
    const DwChain<Counted> chain(numbers(2000));
    Counted* thousandth = chain.first();
    while (thousandth->number != 999)
        thousandth = DwChain<Counted>::behind(*thousandth);
    walk(chain, 2000);
    Counted* met = chain.first();
    while (met->number != 999)
        met = DwChain<Counted>::behind(*met);
    EXPECT_EQ(met, thousandth);
}

TEST_F(Chain, TheEndIsTheEndEachTimeItIsAskedFor) {
    const DwChain<Counted> chain(numbers(1500));
    Counted* last = chain.first();
    while (Counted* next = DwChain<Counted>::behind(*last))
        last = next;
    EXPECT_EQ(last->number, 1499u);
    EXPECT_EQ(DwChain<Counted>::behind(*last), nullptr);
}

TEST(DwMessage, DeepNestingTakesNoStack) {
    const auto message =
        parsed(string_of("From: " + repeated("(", kMany) + repeated(")", kMany) +
                         " a@b\nContent-Type: multipart/x; boundary=b\n\n" +
                         repeated("--b\nContent-Type: multipart/x; boundary=b\n\n", kMany)));
    EXPECT_EQ(text_of(message->Headers().From().FirstMailbox()->LocalPart()), "a");
    size_t parts = 0;
    for (DwBodyPart* part = message->Body().FirstBodyPart(); part; part = part->Next())
        ++parts;
    EXPECT_EQ(parts, kMany);
}

} // namespace
