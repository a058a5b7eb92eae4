// verbs_hotkeys.cpp - a story's key definitions.
#include "player.h"

// hotkey ID MODIFIERS [SCAN…] [swallow]
void Player::Hotkey(const Words& words, const Parts&)
{
    KeyDefinition definition = {};
    definition.ulId = Number32(words.at(1), 10);
    definition.ulType = 1;
    definition.ulModifiers = Modifiers(words.at(2));
    for (size_t i = 3; i < words.size(); i++) {
        if (words[i] == "swallow") {
            definition.ulSwallow = 1;
        } else {
            definition.ucScans[definition.usScanCount++ % 32] = static_cast<uint8_t>(Number(words[i], 16));
        }
    }
    ExpectStatus(m_Application->AddDefinition(Index(), definition));
}

// define ID TYPE [swallow]
void Player::Define(const Words& words, const Parts&)
{
    KeyDefinition definition = {};
    definition.ulId = Number32(words.at(1), 10);
    definition.ulType = Number32(words.at(2), 10);
    definition.ulSwallow = words.size() > 3 && words[3] == "swallow" ? 1 : 0;
    ExpectStatus(m_Application->AddDefinition(Index(), definition));
}

// remove ID
void Player::Remove(const Words& words, const Parts&)
{
    ExpectStatus(m_Application->RemoveDefinition(Index(), Number32(words.at(1), 10)));
}
