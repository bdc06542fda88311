// SIGHUP as something the service waits for: its configuration is to be read again.
#pragma once

namespace tools {

// From now on SIGHUP ends nothing. Called once, before other threads run.
void CatchReloadSignal();

// As the signal does. Any thread.
void AskToReload();

// Readable once a reload was asked for; TakeReload makes it wait for the next.
int ReloadDescriptor();
bool TakeReload();  // whether one was asked for since the last call

}  // namespace tools
