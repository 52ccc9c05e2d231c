// Known answers of the journal's formats, made by journal_answers.py: BLAKE2s-256 of whole files.
#pragma once

#include <cstdint>

/// A segment of so many records, its sidecar and its root.
struct journal_answer_t {
    uint32_t count;
    const char* segment;
    const char* sidecar;
    const char* root;
};

constexpr journal_answer_t JOURNAL_ANSWERS[] = {
    {1, "959bbc745f626c7034021db5de9e31388d95b32551065ab4bf5f7d09189dbf77",
     "279741675f68398c7e3871f8f728315225ccef0b6709bd4494b4fda54120d598",
     "94390243f671392027ae052509877e1972e341bff143910e8af455f1d063bf08"},
    {3, "930ff4ce032a7ecdb966a4943f667f54bc2f96db38ee6b89c665a3061cfe4f96",
     "c16609cc3ba0f53c7a54669a538ec533d5d194ffa211690d22e27b4e28cc7e5d",
     "51dcb92367b14ba664353e937a63d1af2a9f55120bde9525d35e8b0ec1931415"},
    {512, "77fed4df7bad1df01ea269950083e55612ba5298238e99fc9accdc6a18fc367d",
     "f7174b409873ae4fe73211875249f9e38a4f596a61066bdc1de93df49cb3d4d0",
     "ae6bdc517ef3c374d68310ead826e35f1485e596e1fa71ccbbd8ce2c6bc14f44"},
};

/// The hashes of the first 20 records, one after the other, in versions 1 to 4.
constexpr const char* JOURNAL_HASH_ANSWERS[] = {
    "4a0f0f185f72674c0dd475f92b5930850dfe0ed77ab24639ced76f0d8ef7ef14",
    "5c06c517b1cebbbf3972af0d82553b78a589c885a4d1a0befba9d1030ab8f083",
    "cf78ee64c5c2ad2f7c1f042aa200a31b5f0ef2d10bac3b3a8d4675deb73ce0ea",
    "9c66eda3e8a9f62b2283e0ab6c23134bae6d5623154e7c24f9b65c9ceb9f7f4e",
};
