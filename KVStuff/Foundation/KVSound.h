// A sound from a WAV file, or from an Ogg file or another format libsndfile
// decodes, played through Qt Multimedia (QAudioSink) on an audio output device. Any thread may use
// a sound. Playback itself always runs on the main thread, whose event loop drives the audio:
// play() from another thread hands the work to the main thread and returns at once. A sound that
// was started plays to its end even when its last owner lets it go.
#pragma once

#include <QString>
#include <memory>

class KVSound {
public:
    // The sound of that name: among the main bundle's resources "<name>.wav",
    // then any readable sound file whose name without extension is the name;
    // else "<name>.wav" in the system's sound folders (on Linux
    // /usr/share/sounds, /usr/local/share/sounds, ~/.local/share/sounds),
    // subfolders included. A found sound is kept: the same name answers the
    // same object for the life of the process. nullptr when there is no such
    // sound.
    static std::shared_ptr<KVSound> soundNamed(const QString &name);

    // The sound in the file at the path; its name() is null.
    explicit KVSound(const QString &path);
    ~KVSound();
    KVSound(const KVSound &) = delete;
    KVSound &operator=(const KVSound &) = delete;

    QString name() const { return m_name; }
    QString path() const { return m_path; }
    // What "%@" prints for the sound in log lines: "<KVSound: 0x…> name-or-path".
    QString description() const;

    // 0.0 (silent) to 1.0 (as recorded); other values are clamped. A playing
    // sound changes its volume at once.
    void setVolume(float volume);
    float volume() const;
    // In seconds; 0 when the file is no readable sound.
    double duration() const { return m_duration; }

    // Starts the sound from its beginning. False when it is already playing,
    // when the file is no readable sound, or without an application object
    // (whose thread plays). Without any output device the sound ends at once.
    bool play();
    // From play() until the sound has ended or failed.
    bool isPlaying() const;

    // Chooses the output device by its identifier (QAudioDevice::id()); an
    // empty or null identifier means the default output device, looked up at
    // each play. An identifier that no output device has is refused: false,
    // the reason in *error, and the earlier choice stays. (The platform raises
    // an exception there; callers test the result instead.)
    bool setPlaybackDeviceIdentifier(const QString &identifier, QString *error = nullptr);
    // The chosen device's identifier; null for the default device.
    QString playbackDeviceIdentifier() const;

private:
    struct Player;
    QString m_name;
    QString m_path;
    double m_duration = 0.0;
    bool m_readable = false;
    // Shared with work queued for the main thread and with the list of
    // playing sounds, which keeps it until its sound has ended.
    std::shared_ptr<Player> m_player;
};
