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

/// A segment of seven records in a layout of which there are three sizes and six footers, and the
/// current hashes of its records as they are read back.
struct journal_old_answer_t {
    uint32_t event_size;
    uint32_t footer_version;
    const char* segment;
    const char* hashes;
};

constexpr journal_old_answer_t JOURNAL_OLD_ANSWERS[] = {
    {136, 0, "b7dcc5c66fdcf5095a12822a0b53a5a7bcd2a8cc01c871d82c05ee9b736d14a3",
     "85a18d31ca1458257d0631d777a3a79839a4a40559c6ac69179a98c5b76d9048"},
    {136, 1, "b57229252d263d9eda6fb4cf24581996bbd1c93604f579320e0412aef01542ff",
     "f31463588fa1de9785d87ac88c3d07e73f768d060197418dbacea79587050b7b"},
    {136, 2, "436386e790f101c7dbb1854c5b70557e7b48366bdf03186de5da0c99b9561fc1",
     "e651dc9abb6c606113ae29a6e23643bb933f55a953c5d5a4e2d898d38262f606"},
    {136, 3, "2c6ca31f3e884ffc145d50cd5c451c14b0996b4a52301ec141be0f152ee18426",
     "d0bf3acb96cdb980cb7c0b491ebb1bd9cd60a04b708349c9d82661d02f5b4872"},
    {136, 4, "66a9674a155652ea34172caed9bc0dfc0a86d751b1dba3a3a06f8119cdc2fc89",
     "5352c6b016a24b0b71d1ce7dfae92c89ed61718406290fb5ae735fdc8b2bb79f"},
    {136, 5, "a0f938a7902db131a79deb1b328387bdb11ed767b5ee8601995d91947418fa0e",
     "a993d46a255781be15219522e8efabbb0d3484a447a71d46451242368584b7fb"},
    {172, 0, "2b90ec5da8f046edff2f81722731661196b3e1d0788f23c22a2710eea6705df6",
     "f2e122f1748a161144381f9b2e87ec10d49f0792e27e6b56a795e1a75c5405f8"},
    {172, 1, "654c7efa630f999bc505d8448b62651110b8a6d8b9c4ec4778a2e73c2f8aec81",
     "5e5ca24dc7c38b0e2a159849e7152e93dbf77da5fd019c256caba0adb433deea"},
    {172, 2, "a2f150e2add8a6c9b8eb5bafd99b4e6b1f0ac89490caa8c0f03981a83c378ed8",
     "9c0be9cf99a0699e809301b5d3bb0ac3790d7a558346f0949284ef8639acf707"},
    {172, 3, "b37039e23ff08932568e72e29a1f1ef7df944de3a5bc29f1eab09d6cec2e1288",
     "13c73a0eb3f1ede6a100479cba37f9b0343b24896c188c8d353c1fe59d3d81c4"},
    {172, 4, "d6013aba02a690da520896b45c6a8cb83ff2e96d05e9febd5f5cd17ffc75e81a",
     "f3e7ce042ec36faa25766e37fd739a550a2c4f5ff31f6ad84894b2c623d5bc0b"},
    {172, 5, "1537865b50904f9e5953ce5547f3c8ab199e663fc24e31cef158b189696f40dc",
     "149659064fdf6bf96400e42e376738739b6ce2c975aff79c22a0688884f92061"},
    {175, 0, "20217dfd65176734ce647a076042a3bdb2ae556fbf62730a8cc2071090a62495",
     "fd3df16c2439b27a0db9db2186331f6a13046774273b92b63e9e31a35282dfb6"},
    {175, 1, "da4f056f11086aaace51a49bddf2125edb41a493c7a47d8e20b287494b402ddd",
     "0f5c85ffce2561139f595294c325b144d8cb36de584d6b714eaf3fd017bda7dc"},
    {175, 2, "9ae1aeccb6416e1e1df93b390d145dc093b30bc07ee37dd209c4b03851e05cca",
     "0788ba32dc28099fa3db24f4633e1ce610c22d2471a63ed98d02ffff573d9de4"},
    {175, 3, "7be3cffce9627b4f50ec867962bbcb4d9af6ef4f8a156ccbef9ce666832d47f8",
     "b72577c39ca89e8e762281e78a7defcf1403d9f890633c6b4e6c72fa6c8a1b49"},
    {175, 4, "adc4a76e534118a0c55db0a81bf07c1dff441d264136010d8e929bad7fb09676",
     "4686d693caf9e46d4850a3a98779be081199da8f455885536727e38f6f66e045"},
    {175, 5, "5195781510a824673be2f329f0ce14e1cc417569ef6b25cb3d5527664ce7a287",
     "4ee6de7b6019a5622ac522e3394e9ca22c2c68fc03bee5768461e6527bdf1e7e"},
};
