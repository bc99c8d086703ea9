// What filters look at in a card, in a form that costs nothing to copy.
#pragma once

#include <array>
#include <cstdint>

namespace fxm
{

enum class card_class : uint8_t { fxsv, fxio };
// Silent: a room knows what the card was, and its site tells nothing any more. No fxmd says it of its own cards.
enum class health : uint8_t { well, degraded, error, lost, unmonitored, silent };
inline constexpr size_t OWN_HEALTHS = 5; // those before `silent`

inline constexpr std::array<const char *, 2> class_words = {"fxsv", "fxio"};
inline constexpr std::array<const char *, 6> health_words = {"well", "degraded",    "error",
                                                             "lost", "unmonitored", "silent"};

inline const char *word(card_class value) { return class_words[static_cast<size_t>(value)]; }
inline const char *word(health value) { return health_words[static_cast<size_t>(value)]; }

struct plain_facts {
    uint64_t id = 0; // 0: no card; no filter matches it
    uint16_t vlan = 0;
    uint16_t vendor = 0; // of an FXIO card
    uint16_t device = 0;
    card_class kind = card_class::fxsv;
    health state = health::well;
    bool is_40g = false;
    uint8_t int_vector = 0;
    uint8_t partner_count = 0;
};

struct facts : plain_facts {
    std::array<uint64_t, 16> partners{}; // the first partner_count
};

} // namespace fxm
