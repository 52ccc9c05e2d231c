#include <cstring>

#include "tests/unit/graph/causal_fixture.h"

namespace {

/// The event of the known answers, which Python's hashlib.blake2s gave over the byte string.
causal_event_t sample() {
    causal_event_t ev = {};
    ev.id = 0x01020304;
    ev.node_hash = 0xA1B2C3D4;
    ev.time = {0x1122334455667788, 0x0BADF00D, 99};
    ev.type = CAUSAL_FS;
    strcpy(ev.subsystem, "vofs");
    strcpy(ev.desc, "write /a bytes=5");
    memcpy(ev.payload, "\x06\x00\x01\xAA\xBB", 5);
    ev.payload_len = 5;
    ev.schema_id = 6;
    ev.schema_version = 1;
    ev.num_parents = 2;
    const uint32_t parents[] = {7, 9, 11, 13};  // only the first two count
    memcpy(ev.parents, parents, sizeof parents);
    ev.child_count = 3;
    return ev;
}

std::string hex(const uint8_t hash[32]) {
    char text[65];
    causal_hash_hex(hash, text);
    return text;
}

TEST(CausalHash, VersionsMatchKnownAnswers) {
    const char* const wanted[] = {
        "af1df59e6970f9c78fefaa5981ab0790b63850e2caebec9ccfb11a94093dc08d",
        "856e2e6def1e1bbeec17c468c6bd336401fd3eb36799bdfb78bac32ecff1906e",
        "2dbcf13984ab50fa56f1440b579a18a7c832f384f10b43448a862882c43bad17",
        "5c0386bc348b6a3cd388e906df4edc5330e5fd71ed17c7191485bd6a4450e393",
    };
    const causal_event_t ev = sample();
    uint8_t hash[32];
    for (uint32_t version = 1; version <= 4; version++) {
        EXPECT_TRUE(causal_event_hash_version(version, &ev, hash));
        EXPECT_EQ(hex(hash), wanted[version - 1]);
    }
    EXPECT_TRUE(causal_event_hash(&ev, hash));
    EXPECT_EQ(hex(hash), wanted[3]);
}

TEST(CausalHash, PayloadAndSchemaAreGivenStoredOrDerived) {
    const char* wanted = "46c7455189cf9278311939d9d6b097db28f7e05da51df0172a4e516a4f8380c8";
    causal_event_t ev = sample();
    for (uint8_t i = 0; i < 32; i++)
        ev.payload_hash[i] = i;
    uint8_t hash[32];
    EXPECT_TRUE(causal_event_hash_with_payload_hash(4, &ev, 300, ev.payload_hash, hash));
    EXPECT_EQ(hex(hash), wanted);
    ev.payload_hash_valid = true;
    ev.payload_len = 300;
    EXPECT_TRUE(causal_event_hash_with_payload_hash(4, &ev, 1, nullptr, hash));
    EXPECT_EQ(hex(hash), wanted);
    ev.payload_hash_valid = false;
    ev.payload_len = 0xFFFFFFFF;
    EXPECT_TRUE(causal_event_hash(&ev, hash));
    // Without a payload, and with the schema inferred.
    strncpy(ev.desc, "create /a", sizeof ev.desc);
    ev.payload_len = 0;
    ev.schema_version = 0;
    EXPECT_TRUE(causal_event_hash(&ev, hash));
    EXPECT_EQ(hex(hash), "39c261f39ab2e5f5d833dc45cc12707cb4567d280b8f5e01de3a8a978e5c2be6");
}

TEST(CausalHash, UnknownVersionsAndNoEventGiveZeros) {
    const causal_event_t ev = sample();
    for (const uint32_t version : {0u, 4u, 5u, ~0u}) {
        uint8_t hash[32] = {1};
        EXPECT_FALSE(causal_event_hash_version(version, version == 4 ? nullptr : &ev, hash));
        EXPECT_EQ(hex(hash), std::string(64, '0'));
    }
}

}  // namespace
