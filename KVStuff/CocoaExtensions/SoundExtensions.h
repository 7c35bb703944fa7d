// The sounds a user can choose from, and playing a sound the way the desktop
// plays its alert sounds: on the output device for sound effects, at the
// user's alert volume, with an optional trace in the log (user default
// "soundLog"). Also keeps the audio output awake by playing an inaudible
// sound when none has been played for a while.
#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

#include "KVSound.h"

namespace SoundExtensions {

// ---- The catalogue ----
// The application's own sounds and those of the system's, the local and the
// user's sound folders (on Linux /usr/share/sounds, /usr/local/share/sounds
// and ~/.local/share/sounds, not their subfolders), where the system's
// include the desktop's own: the Ogg sounds of the freedesktop sound theme.
// Every list is read from the disk on each call.

// The extensions (and file-type codes) of sound files, 23 of them; matching is
// exact, case included.
const QSet<QString> &soundFileExtensions();
// The path's extension is one of them.
bool isSoundFileAtPath(const QString &path);
// The sound files at the top level of the main bundle's resources, in its order.
QStringList applicationSoundFiles();
// Their names without extension, sorted, duplicates kept; never the silent
// sound "SoundOfSilence".
QStringList applicationSounds();
// The sound files of the sound folders, folder by folder in the order above,
// each in the order the system lists it.
QStringList systemSoundFiles();
// Their names without extension, each once, sorted.
QStringList systemSounds();
// The file of the sound with that name (case counts): the application's
// first, then the system's, the local and the user's; null when none has it.
QString pathOfSound(const QString &name);

// ---- Playing ----

// Plays the sound on the default output device; an identifier the sound
// refuses falls back to its default device. The result of play() is not
// looked at. Sets the sound date.
void playAsSoundEffect(KVSound &sound);

// The identifier of the default output device, null when there is none.
QString systemAudioDeviceID();
QString _alertSoundAlertDeviceIdentifier();
// The device the desktop's settings name for sound effects. Linux keeps no
// separate choice for them: event sounds go to the sound server's default
// sink, so this is that sink's identifier (null when there is no device),
// as the server reports it through Qt. Not used by playAsSoundEffect.
QString soundEffectDeviceID();
// Logs "   device <name> by <maker> id <identifier>" for each output device.
void listAudioDevices();

// The volume for alert-like sounds, 0.0 to 1.0, from the user's alert volume
// setting (suite "com.apple.systemsound", key "com.apple.sound.beep.volume");
// 1.0 when it is missing or is neither a number nor a text. A text that is no
// number reads as 0, which maps to 0.0.
float alertVolume();

// Notes now as the time the last sound was started.
void setSoundDateNow();
// Plays the silent sound on a background thread when no sound has been
// started in the last 25 seconds.
void prepareForSound();
// The body of that thread: creates the sound named "SoundOfSilence" once (at
// volume 0.01, kept for the life of the process) and plays it as a sound
// effect. Two such threads never create it twice.
void playSilentSoundThread();

}  // namespace SoundExtensions
