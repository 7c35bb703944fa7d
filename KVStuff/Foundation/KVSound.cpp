#include "KVSound.h"

#include <QAudioDevice>
#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMediaDevices>
#include <QSoundEffect>
#include <QThread>
#include <QUrl>
#include <algorithm>
#include <atomic>
#include <mutex>

#include "KVBundle.h"
#include "KVFormat.h"
#include "KVSound_p.h"

namespace {

quint32 littleEndian(const char *bytes, int count) {
    quint32 value = 0;
    for (int i = count - 1; i >= 0; --i) value = (value << 8) | static_cast<quint8>(bytes[i]);
    return value;
}

// Reads the RIFF header: whether the file is a WAV file with a format and a
// data chunk, and how many seconds its data lasts.
bool readWaveHeader(const QString &path, double *duration) {
    *duration = 0.0;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QByteArray riff = file.read(12);
    if (riff.size() < 12 || !riff.startsWith("RIFF") || riff.mid(8, 4) != "WAVE") return false;
    quint32 bytesPerSecond = 0;
    for (;;) {
        const QByteArray chunk = file.read(8);
        if (chunk.size() < 8) return false;
        const qint64 size = littleEndian(chunk.constData() + 4, 4);
        const QByteArray id = chunk.left(4);
        if (id == "fmt ") {
            const QByteArray format = file.read(size);
            if (format.size() < 16) return false;
            bytesPerSecond = littleEndian(format.constData() + 8, 4);
            if (size % 2) file.read(1);
        } else if (id == "data") {
            if (bytesPerSecond == 0) return false;
            // Writers that stream leave the size open; the file's rest counts.
            const qint64 available = file.size() - file.pos();
            *duration = static_cast<double>(std::min(size, available)) / bytesPerSecond;
            return true;
        } else if (!file.seek(file.pos() + size + size % 2)) {
            return false;
        }
    }
}

bool isWaveFile(const QString &path) {
    double duration = 0.0;
    return QFileInfo(path).isFile() && readWaveHeader(path, &duration);
}

QString pathOfSound(const QString &name) {
    const KVBundle bundle = KVBundle::mainBundle();
    const QString resource = bundle.pathForResource(name, QStringLiteral("wav"));
    if (!resource.isNull() && isWaveFile(resource)) return resource;
    for (const QString &path : bundle.pathsForResourcesOfType(QString())) {
        if (QFileInfo(path).completeBaseName() == name && isWaveFile(path)) return path;
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
            if (isWaveFile(path)) return path;
        }
    }
    return QString();
}

QThread *mainThread() {
    QCoreApplication *app = QCoreApplication::instance();
    return app ? app->thread() : nullptr;
}

}  // namespace

// The playing half of a sound. Its QSoundEffect belongs to the main thread and
// is touched only there.
struct KVSound::Player {
    explicit Player(const QString &path) : path(path) {}
    ~Player();

    // Main thread only.
    void start(const std::shared_ptr<Player> &self);
    void createEffect(const QAudioDevice &device);
    void finish();

    const QString path;
    mutable std::mutex lock;
    float volume = 1.0f;
    QString deviceIdentifier;
    QAudioDevice device;
    std::atomic<bool> playing{false};

    QSoundEffect *effect = nullptr;

    // The players that are sounding, kept until their sound has ended. Main
    // thread only.
    static QHash<Player *, std::shared_ptr<Player>> &sounding();
};

QHash<KVSound::Player *, std::shared_ptr<KVSound::Player>> &KVSound::Player::sounding() {
    static auto *players = new QHash<Player *, std::shared_ptr<Player>>;
    return *players;
}

KVSound::Player::~Player() {
    if (!effect) return;
    // A player can end on any thread; its effect goes on the main thread.
    QObject::disconnect(effect, nullptr, nullptr, nullptr);
    effect->deleteLater();
}

// An effect keeps the device it loaded its sound for, so another device
// takes a new effect.
void KVSound::Player::createEffect(const QAudioDevice &device) {
    if (effect && effect->audioDevice() == device) return;
    if (effect) {
        QObject::disconnect(effect, nullptr, nullptr, nullptr);
        effect->deleteLater();
    }
    effect = new QSoundEffect(device);
    QObject::connect(effect, &QSoundEffect::playingChanged, effect, [this] {
        if (!effect->isPlaying()) finish();
    });
    QObject::connect(effect, &QSoundEffect::statusChanged, effect, [this] {
        if (effect->status() == QSoundEffect::Error) finish();
    });
    effect->setSource(QUrl::fromLocalFile(path));
}

void KVSound::Player::start(const std::shared_ptr<Player> &self) {
    QAudioDevice target;
    float startVolume;
    {
        std::lock_guard guard(lock);
        target = device;
        startVolume = volume;
    }
    if (target.isNull()) target = QMediaDevices::defaultAudioOutput();
    createEffect(target);
    effect->setVolume(startVolume);
    sounding().insert(this, self);
    effect->play();
    if (effect->status() == QSoundEffect::Error || effect->status() == QSoundEffect::Null) finish();
}

void KVSound::Player::finish() {
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
    const QString path = pathOfSound(name);
    if (path.isNull()) return nullptr;
    auto sound = std::make_shared<KVSound>(path);
    sound->m_name = name;
    cache->insert(name, sound);
    return sound;
}

KVSound::KVSound(const QString &path) : m_path(path), m_player(std::make_shared<Player>(path)) {
    m_readable = readWaveHeader(path, &m_duration);
    // On the main thread the file starts loading now, so a first play is prompt.
    if (m_readable && QThread::currentThread() == mainThread())
        m_player->createEffect(QMediaDevices::defaultAudioOutput());
}

KVSound::~KVSound() = default;

QString KVSound::description() const {
    return QStringLiteral("<KVSound: 0x%1> %2")
        .arg(QString::number(reinterpret_cast<quintptr>(this), 16), m_name.isNull() ? m_path : m_name);
}

void KVSound::setVolume(float volume) {
    volume = std::clamp(volume, 0.0f, 1.0f);
    {
        std::lock_guard guard(m_player->lock);
        m_player->volume = volume;
    }
    QThread *main = mainThread();
    if (!main) return;
    const std::shared_ptr<Player> player = m_player;
    auto apply = [player, volume] {
        if (player->effect) player->effect->setVolume(volume);
    };
    if (QThread::currentThread() == main) {
        apply();
    } else {
        QMetaObject::invokeMethod(QCoreApplication::instance(), apply, Qt::QueuedConnection);
    }
}

float KVSound::volume() const {
    std::lock_guard guard(m_player->lock);
    return m_player->volume;
}

bool KVSound::play() {
    QThread *main = mainThread();
    if (!m_readable || !main) return false;
    if (m_player->playing.exchange(true)) return false;
    const std::shared_ptr<Player> player = m_player;
    if (QThread::currentThread() == main) {
        player->start(player);
    } else {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [player] { player->start(player); },
            Qt::QueuedConnection);
    }
    return true;
}

bool KVSound::isPlaying() const { return m_player->playing; }

bool KVSound::setPlaybackDeviceIdentifier(const QString &identifier, QString *error) {
    QAudioDevice chosen;
    if (!identifier.isEmpty()) {
        const QByteArray id = identifier.toUtf8();
        for (const QAudioDevice &device : QMediaDevices::audioOutputs()) {
            if (device.id() == id) chosen = device;
        }
        if (chosen.isNull()) {
            if (error) *error = kvFormat(QStringLiteral("No audio output device has the identifier %@"), identifier);
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
