#include "KVSound.h"

#include <sndfile.h>

#include <QAudioDevice>
#include <QAudioFormat>
#include <QAudioSink>
#include <QBuffer>
#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMediaDevices>
#include <QThread>
#include <QTimer>
#include <QtEndian>
#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <optional>

#include "KVBundle.h"
#include "KVFormat.h"
#include "KVSound_p.h"

// Playback goes through QAudioSink rather than QSoundEffect, whose Qt 6.4
// version hangs the main thread when an effect is deleted while any sound is
// still loading, stops reporting the end of a sound after a few plays, and
// keeps the device it loaded for. A sound effect is small enough to hold
// whole, decoded.

namespace {

struct Wave {
    QAudioFormat format;
    QByteArray samples;
    double duration = 0.0;
};

// Longer sounds are no sound effects: about six minutes of stereo at 44.1 kHz.
constexpr sf_count_t kMaxDecodedSamples = sf_count_t(1) << 25;

// What libsndfile reads besides WAV (Ogg Vorbis above all, the format of the
// desktop's sound theme), decoded into 32-bit floats. Read block by block: a
// damaged file may claim any length, or none, and gives what decodes before
// the damage.
std::optional<Wave> decodeWithLibsndfile(const QString &path) {
    SF_INFO info{};
    SNDFILE *sound = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!sound) return std::nullopt;
    constexpr sf_count_t kBlockFrames = 4096;
    const sf_count_t frameBytes = info.channels * sf_count_t(sizeof(float));
    QByteArray samples;
    sf_count_t frames = 0;
    while (info.channels >= 1 && info.samplerate >= 1) {
        if ((frames + kBlockFrames) * info.channels > kMaxDecodedSamples) {
            frames = 0;  // too long for a sound effect
            break;
        }
        samples.resize(qsizetype((frames + kBlockFrames) * frameBytes));
        const sf_count_t got = sf_readf_float(
            sound, reinterpret_cast<float *>(samples.data() + frames * frameBytes), kBlockFrames);
        if (got <= 0) break;
        frames += got;
    }
    samples.truncate(qsizetype(frames * frameBytes));
    sf_close(sound);
    if (frames <= 0) return std::nullopt;
    Wave wave;
    wave.format.setChannelCount(info.channels);
    wave.format.setSampleRate(info.samplerate);
    wave.format.setSampleFormat(QAudioFormat::Float);
    wave.samples = samples;
    wave.duration = double(frames) / info.samplerate;
    return wave;
}

// WAV files: integer PCM of 8, 16 or 32 bits and 32-bit floats (the sample
// formats the audio output takes), also in the extensible format. Other
// formats through libsndfile.
std::optional<Wave> readSound(const QString &path) {
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QByteArray header = file.peek(12);
    if (!header.startsWith("RIFF") || header.mid(8, 4) != "WAVE") {
        file.close();
        return decodeWithLibsndfile(path);
    }
    const QByteArray bytes = file.readAll();
    Wave wave;
    int bits = 0;
    for (qsizetype at = 12; at + 8 <= bytes.size();) {
        const QByteArray id = bytes.mid(at, 4);
        const qint64 size = qFromLittleEndian<quint32>(bytes.constData() + at + 4);
        const qsizetype body = at + 8;
        if (id == "fmt ") {
            if (size < 16 || body + 16 > bytes.size()) return std::nullopt;
            const char *format = bytes.constData() + body;
            quint32 tag = qFromLittleEndian<quint16>(format);
            if (tag == 0xfffe && size >= 40 && body + 40 <= bytes.size())
                tag = qFromLittleEndian<quint16>(format + 24);  // the sub-format's first field
            const int channels = int(qFromLittleEndian<quint16>(format + 2));
            const int rate = int(qFromLittleEndian<quint32>(format + 4));
            bits = int(qFromLittleEndian<quint16>(format + 14));
            const bool isFloat = tag == 3;
            if ((tag != 1 && tag != 3) || channels < 1 || rate < 1) return std::nullopt;
            if (isFloat ? bits != 32 : (bits != 8 && bits != 16 && bits != 32)) return std::nullopt;
            wave.format.setChannelCount(channels);
            wave.format.setSampleRate(rate);
            wave.format.setSampleFormat(isFloat      ? QAudioFormat::Float
                                        : bits == 8  ? QAudioFormat::UInt8
                                        : bits == 16 ? QAudioFormat::Int16
                                                     : QAudioFormat::Int32);
        } else if (id == "data") {
            if (!wave.format.isValid()) return std::nullopt;
            // Writers that stream leave the size open; the file's rest counts.
            const int frameBytes = wave.format.channelCount() * bits / 8;
            qsizetype length = std::min<qint64>(size, bytes.size() - body);
            length -= length % frameBytes;
            wave.samples = bytes.mid(body, length);
            wave.duration = double(length / frameBytes) / wave.format.sampleRate();
            return wave;
        }
        at = body + size + size % 2;
    }
    return std::nullopt;
}

// Offers the files that may hold the named sound, in order, until one is
// taken: the taker reads it, so that each candidate is read once.
void findSound(const QString &name, const std::function<bool(const QString &)> &take) {
    const KVBundle bundle = KVBundle::mainBundle();
    const QString resource = bundle.pathForResource(name, QStringLiteral("wav"));
    if (!resource.isNull() && take(resource)) return;
    for (const QString &path : bundle.pathsForResourcesOfType(QString())) {
        if (QFileInfo(path).completeBaseName() == name && take(path)) return;
    }
    const QString fileName = name + QStringLiteral(".wav");
    for (const QString &folder : KVSoundPlatform::soundFolders()) {
        QStringList found;
        QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            if (it.fileName() == fileName) found << path;
        }
        // Listing order differs between file systems; the shallowest path
        // (then the alphabetically first) wins.
        std::sort(found.begin(), found.end(), [](const QString &a, const QString &b) {
            const qsizetype depthA = a.count('/'), depthB = b.count('/');
            return depthA != depthB ? depthA < depthB : a < b;
        });
        for (const QString &path : found) {
            if (take(path)) return;
        }
    }
}

QThread *mainThread() {
    QCoreApplication *app = QCoreApplication::instance();
    return app ? app->thread() : nullptr;
}

// Runs the work on the main thread: at once when called there, else queued.
template <typename Work>
void onMainThread(Work work) {
    if (QThread::currentThread() == mainThread()) {
        work();
    } else {
        QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(work),
                                  Qt::QueuedConnection);
    }
}

}  // namespace

// The playing half of a sound, shared with work queued for the main thread.
struct KVSound::Player : std::enable_shared_from_this<Player> {
    // Main thread only.
    void start();
    void sinkStateChanged(QAudio::State state);
    void stopAfter(qint64 milliseconds);
    void stop();

    QAudioFormat format;
    QByteArray samples;

    mutable std::mutex lock;
    float volume = 1.0f;
    QString deviceIdentifier;
    QAudioDevice device;
    std::atomic<bool> playing{false};

    // Main thread only, while the sound plays.
    QAudioSink *sink = nullptr;
    QBuffer *source = nullptr;

    // The players that are sounding, kept until their sound has ended. Main
    // thread only.
    static QHash<Player *, std::shared_ptr<Player>> &sounding();
};

QHash<KVSound::Player *, std::shared_ptr<KVSound::Player>> &KVSound::Player::sounding() {
    static auto *players = new QHash<Player *, std::shared_ptr<Player>>;
    return *players;
}

void KVSound::Player::start() {
    QAudioDevice target;
    float startVolume;
    {
        std::lock_guard guard(lock);
        target = device;
        startVolume = volume;
    }
    if (target.isNull()) target = QMediaDevices::defaultAudioOutput();
    if (target.isNull()) {
        playing = false;
        return;
    }
    sounding().insert(this, shared_from_this());
    sink = new QAudioSink(target, format);
    sink->setVolume(startVolume);
    source = new QBuffer(sink);
    source->setData(samples);
    source->open(QIODevice::ReadOnly);
    QObject::connect(sink, &QAudioSink::stateChanged, sink,
                     [this](QAudio::State state) { sinkStateChanged(state); });
    sink->start(source);
    if (sink->error() != QAudio::NoError) {
        stop();
        return;
    }
    // Should the output never report the end, the sound still ends in time.
    const qint64 length = format.durationForBytes(int(samples.size())) / 1000;
    stopAfter(2 * length + 2000);
}

void KVSound::Player::sinkStateChanged(QAudio::State state) {
    qint64 delay;
    if (state == QAudio::IdleState && source->atEnd()) {
        // The output has taken every sample but still holds up to a buffer
        // full; the sound has ended once that has played too.
        delay = format.durationForBytes(int(sink->bufferSize())) / 1000 + 50;
    } else if (state == QAudio::StoppedState && sink->error() != QAudio::NoError) {
        delay = 0;  // the device went away or failed
    } else {
        return;
    }
    stopAfter(delay);  // not at once: the sink is inside its own signal
}

void KVSound::Player::stopAfter(qint64 milliseconds) {
    QTimer::singleShot(milliseconds, sink, [player = weak_from_this(), current = sink] {
        // Unless this play has ended already.
        if (const std::shared_ptr<Player> self = player.lock(); self && self->sink == current)
            self->stop();
    });
}

void KVSound::Player::stop() {
    QAudioSink *ending = std::exchange(sink, nullptr);
    source = nullptr;
    QObject::disconnect(ending, nullptr, nullptr, nullptr);
    ending->stop();
    ending->deleteLater();  // with its source
    playing = false;
    // May release the last reference to this player: nothing may follow.
    sounding().remove(this);
}

std::shared_ptr<KVSound> KVSound::soundNamed(const QString &name) {
    static std::mutex cacheLock;
    // Kept for the life of the process, like the platform's named sounds.
    static auto *cache = new QHash<QString, std::shared_ptr<KVSound>>;
    if (name.isEmpty()) return nullptr;
    std::lock_guard guard(cacheLock);
    if (const auto it = cache->constFind(name); it != cache->cend()) return *it;
    std::shared_ptr<KVSound> sound;
    findSound(name, [&sound](const QString &path) {
        auto candidate = std::make_shared<KVSound>(path);
        if (!candidate->m_readable) return false;
        sound = std::move(candidate);
        return true;
    });
    if (!sound) return nullptr;
    sound->m_name = name;
    cache->insert(name, sound);
    return sound;
}

KVSound::KVSound(const QString &path) : m_path(path), m_player(std::make_shared<Player>()) {
    if (std::optional<Wave> wave = readSound(path)) {
        m_readable = true;
        m_duration = wave->duration;
        m_player->format = wave->format;
        m_player->samples = wave->samples;
    }
}

KVSound::~KVSound() = default;

QString KVSound::description() const {
    return QStringLiteral("<KVSound: 0x%1> %2")
        .arg(QString::number(reinterpret_cast<quintptr>(this), 16),
             m_name.isNull() ? m_path : m_name);
}

void KVSound::setVolume(float volume) {
    volume = std::clamp(volume, 0.0f, 1.0f);
    {
        std::lock_guard guard(m_player->lock);
        m_player->volume = volume;
    }
    if (!mainThread()) return;
    onMainThread([player = m_player, volume] {
        if (player->sink) player->sink->setVolume(volume);
    });
}

float KVSound::volume() const {
    std::lock_guard guard(m_player->lock);
    return m_player->volume;
}

bool KVSound::play() {
    if (!m_readable || !mainThread()) return false;
    if (m_player->playing.exchange(true)) return false;
    onMainThread([player = m_player] { player->start(); });
    return true;
}

bool KVSound::isPlaying() const { return m_player->playing; }

bool KVSound::setPlaybackDeviceIdentifier(const QString &identifier, QString *error) {
    QAudioDevice chosen;
    if (!identifier.isEmpty()) {
        const QByteArray id = identifier.toUtf8();
        for (const QAudioDevice &device : QMediaDevices::audioOutputs()) {
            if (device.id() == id) {
                chosen = device;
                break;
            }
        }
        if (chosen.isNull()) {
            if (error)
                *error = kvFormat(QStringLiteral("No audio output device has the identifier %@"),
                                  identifier);
            return false;
        }
    }
    std::lock_guard guard(m_player->lock);
    m_player->device = chosen;
    m_player->deviceIdentifier = identifier.isEmpty() ? QString() : identifier;
    return true;
}

QString KVSound::playbackDeviceIdentifier() const {
    std::lock_guard guard(m_player->lock);
    return m_player->deviceIdentifier;
}
