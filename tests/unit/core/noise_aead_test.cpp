
#include "tests/machine/memory.h"
#include "tests/unit/core/noise_vectors.h"

namespace {

/// Key, nonce and aad of the n-th message, and what goes in and comes out.
struct message_t {
    explicit message_t(uint32_t n)
        : key(pattern(n, 32)),
          nonce(pattern(n + 2, 12)),
          aad(pattern(n + 3, n * 7 % 40)),
          pt(pattern(n + 1, n)),
          ct(n),
          tag(CRYPTO_TAG_BYTES) {}
    void encrypt() {
        chacha20poly1305_encrypt(ct.data(), tag.data(), pt.data(), size(pt), aad.data(), size(aad),
                                 key.data(), nonce.data());
    }
    int decrypt() {
        return chacha20poly1305_decrypt(pt.data(), ct.data(), size(ct), tag.data(), aad.data(),
                                        size(aad), key.data(), nonce.data());
    }
    static uint32_t size(const bytes_t& bytes) { return static_cast<uint32_t>(bytes.size()); }
    bytes_t key, nonce, aad, pt, ct, tag;
};

class Aead : public testing::Test {
protected:
    void SetUp() override { machine_boot_memory(); }
};

TEST_F(Aead, AgreesWithAnIndependentImplementationAndOpensAgain) {
    bytes_t outputs;
    std::vector<uint32_t> lengths = {4064, 4080, 4081, 5000};
    for (uint32_t n = 150; n-- > 0;)
        lengths.insert(lengths.begin(), n);
    const uint32_t before = heap_used();
    for (const uint32_t n : lengths) {
        message_t m(n);
        m.encrypt();
        append(outputs, m.ct);
        append(outputs, m.tag);
        const bytes_t sent = m.pt;
        std::fill(m.pt.begin(), m.pt.end(), uint8_t{0});
        EXPECT_EQ(m.decrypt(), 0) << n;
        EXPECT_EQ(m.pt, sent) << n;
    }
    EXPECT_EQ(over(outputs), "b94b2c7c301bb98a02160a42caabd9ea144236314f3576b895b8c0c9bd95d977");
    EXPECT_EQ(heap_used(), before);
}

TEST_F(Aead, WorksInPlaceAndRefusesEveryChange) {
    message_t m(100);
    const bytes_t sent = m.pt;
    m.encrypt();
    const bytes_t untouched(100, 0xAA);
    for (bytes_t* changed : {&m.tag, &m.ct, &m.aad, &m.nonce, &m.key})
        for (size_t i = 0; i < changed->size(); ++i) {
            m.pt = untouched;
            (*changed)[i] ^= static_cast<uint8_t>(1 << i % 8);
            EXPECT_EQ(m.decrypt(), -1);
            EXPECT_EQ(m.pt, untouched);
            (*changed)[i] ^= static_cast<uint8_t>(1 << i % 8);
        }
    m.pt = m.ct;
    EXPECT_EQ(chacha20poly1305_decrypt(m.pt.data(), m.pt.data(), 100, m.tag.data(), m.aad.data(),
                                       message_t::size(m.aad), m.key.data(), m.nonce.data()),
              0);
    EXPECT_EQ(m.pt, sent);
}

TEST_F(Aead, NeedsTheHeapOnlyAboveOnePageOfMacInput) {
    message_t fits(4080), too_long(4081);
    fits.aad.clear();
    too_long.aad.clear();
    message_t reference = too_long;
    reference.encrypt();
    const auto rest = take_heap_but(1024);
    machine_texts().clear();
    fits.encrypt();
    EXPECT_EQ(fits.decrypt(), 0);
    EXPECT_EQ(machine_texts(), "");

    too_long.tag.assign(CRYPTO_TAG_BYTES, 0xFF);
    too_long.encrypt();
    EXPECT_TRUE(machine_texts().ends_with("[noise] encrypt: alloc failed\n")) << machine_texts();
    EXPECT_EQ(too_long.ct, reference.ct);
    EXPECT_EQ(too_long.tag, bytes_t(CRYPTO_TAG_BYTES, 0));
    EXPECT_EQ(reference.decrypt(), -1);
}

TEST(Poly1305, AgreesWithAnIndependentImplementationAtTheEdgesOfTheField) {
    bytes_t outputs;
    const auto add = [&outputs](const bytes_t& key, const bytes_t& message) {
        bytes_t tag(CRYPTO_TAG_BYTES);
        poly1305_mac(tag.data(), message.data(), message_t::size(message), key.data());
        append(outputs, tag);
    };
    for (uint32_t n = 0; n < 200; ++n)
        add(pattern(n, 32), pattern(n + 1, n));
    bytes_t two(32), two_padded(32);
    two[0] = two_padded[0] = 2;
    std::fill(two_padded.begin() + 16, two_padded.end(), uint8_t{0xFF});
    for (const bytes_t& key : {bytes_t(32, 0xFF), two, two_padded})
        for (const int first : {0x00, 0x02, 0xFB, 0xFD, 0xFF})
            for (const size_t n : {1u, 15u, 16u, 17u, 48u}) {
                bytes_t message(n, 0xFF);
                message[0] = static_cast<uint8_t>(first);
                add(key, message);
            }
    EXPECT_EQ(over(outputs), "467347731cad17a33bc78d3c682345a4819542d9631d03ad04ae032115c89c98");
}

}  // namespace
