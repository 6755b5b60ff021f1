#pragma once

// The state store: one small JSON object in registry.json, shared by every
// client of the machine. Each call is one complete transaction (open, lock,
// read, change if asked, write back, unlock, close) and nothing of the file
// is kept in memory between calls. Any thread may call at any time.

#include <functional>
#include <string>

namespace qv {

using StateTransform = std::function<std::string(const std::string&)>;

// The store's files must stay below this size; a file that reaches it ends
// the process, since its content can no longer be trusted to be ours.
inline constexpr std::size_t stateFileLimit = 10000;

// The one read-modify-write. The transform gets the present value's text
// (empty when the key is missing) and runs when it is set and either `force`
// is true or the key is missing; its result is stored as a JSON string.
// Returns the value after the call, or "" when the key is missing and no
// transform ran.
//
// A transform that throws leaves this transaction's descriptor open and
// locked until the process ends; later calls wait out their bounded lock
// attempts and then go on without the lock.
std::string updateState(const std::string& key, bool force, const StateTransform& transform);

std::string getClientId();  // creates a ClientId on first use
std::string getUploadId();  // creates an UploadId on first use
std::string newUploadId();  // replaces the UploadId, returns the new one
std::string getSetting(const std::string& key, const std::string& defaultValue);
std::string setSetting(const std::string& key, const std::string& value);
std::string readOnly(const std::string& key);  // "" if missing

// Machine-wide pause counting: one client counts once however often it
// pauses. pause() restamps LastPause every time. unpause() returns true when
// this client had no count to give back, or when PauseCount reached 0.
void pause();
bool unpause();
bool isPaused();

// Transforms for PauseCount: atoi of the old text (0 when empty), plus one,
// or minus one without going below 0.
std::string increment(const std::string& old);
std::string decrement(const std::string& old);

}  // namespace qv
