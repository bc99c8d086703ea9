// The table of cards.
#include "card.h"

std::unordered_map<u64, card_t> cards;

static u64 _last_serial;

u32 card_register(const card_t &card, u32 address)
{
    auto found = card.registers.find(address);
    return found == card.registers.end() ? 0 : found->second;
}

unsigned card_channels(const card_t &card)
{
    unsigned channels = 0;
    for (unsigned port = 0; port < PORTS; port++)
        for (unsigned mac = 0; mac < card_macs(card); mac++)
            if (card.on_port[port])
                channels |= channel_bit(port, mac);
    return channels;
}

card_t card_blank(class_t cls, u64 id)
{
    card_t card;
    card.id = id;
    card.cls = cls;
    card.sw[1] = SW1_PORT0_LINK | SW1_PORT1_LINK;
    if (cls == FXIO)
        card.sw[1] |= SW1_PRESENCE;
    return card;
}

card_t *card_find(u64 id)
{
    auto found = cards.find(id);
    return found == cards.end() ? nullptr : &found->second;
}

card_t *card_of_mac(u64 mac)
{
    if (card_t *card = card_find(mac))
        return card;
    card_t *card = card_find(mac & ~MAC_SECOND);
    return card && card->is_40g ? card : nullptr;
}

card_t &card_add(const card_t &card)
{
    card_t &added = cards.insert_or_assign(card.id, card).first->second;
    added.serial = ++_last_serial;
    return added;
}

void card_remove(u64 id) { cards.erase(id); }

bool card_conflict(const card_t &card)
{
    const card_t *neighbour = card_find(card.id ^ MAC_SECOND);
    return neighbour && (neighbour->is_40g || card.is_40g);
}
