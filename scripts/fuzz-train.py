"""Driver of scripts/fuzz-train: random trees and argument vectors for train.

Each case lays out, on a fresh tmpfs, a folder of root's with a sentinel file,
a folder of the test user's with a random source tree, and a root-only secret;
then runs the tool as root with PKEXEC_UID naming the test user, as pkexec
would, and checks what it did. A failing case prints its seed, which makes
the same case again.
"""
import os
import pwd
import random
import stat
import subprocess
import sys
import tempfile
import time

TOOL = os.path.abspath(sys.argv[1])
SECONDS = float(sys.argv[2])
USER = pwd.getpwnam("kvtest")
SECRET = b"root-only-secret-4711"
STATUSES = {0, 1, 2, 64, 77}
STATUS_COUNTS = {}
NAMES = [b"a", b"Contents", b"MacOS", b" space", b"-dash", b"quote\"", b"new\nline",
         b"\xff\xfe", b"caf\xc3\xa9", b"..x", b".hidden", b"x" * 255]


def chown_tree(path):
    for folder, dirs, files in os.walk(path):
        for name in dirs + files:
            os.lchown(os.path.join(folder, name), USER.pw_uid, USER.pw_gid)
    os.lchown(path, USER.pw_uid, USER.pw_gid)


def random_tree(rng, path, root, secret, links, depth=0):
    """Fills the folder with random items; hard links to the secret are only
    named in links, to be made once the tree is the user's (changing a link's
    owner would change the secret's)."""
    for _ in range(rng.randint(0, 6)):
        name = os.path.join(path, rng.choice(NAMES))
        if os.path.lexists(name):
            continue
        kind = rng.random()
        try:
            if kind < 0.4:
                with open(name, "wb") as f:
                    f.write(os.urandom(rng.randint(0, 2048)))
                os.chmod(name, rng.choice([0o644, 0o755, 0o4755, 0o2755, 0o777, 0o1777, 0o600, 0o000]))
            elif kind < 0.55 and depth < 4:
                os.mkdir(name)
                random_tree(rng, name, root, secret, links, depth + 1)
                os.chmod(name, rng.choice([0o755, 0o777, 0o1777, 0o700, 0o2755]))
            elif kind < 0.75:
                os.symlink(rng.choice([root, secret, "/etc/shadow", "..", "../..", "/", name, "/proc/self/root"]), name)
            elif kind < 0.80:
                links.append(name)
            elif kind < 0.81:
                os.mkfifo(name, 0o666)
            else:
                os.setxattr(name if os.path.exists(name) else path, b"user.fuzz", os.urandom(8))
        except OSError:
            pass


def snapshot(path):
    items = {}
    for folder, dirs, files in os.walk(path):
        for name in dirs + files:
            full = os.path.join(folder, name)
            st = os.lstat(full)
            items[full] = (st.st_mode, st.st_uid, st.st_size)
    return items


def check(result, top, root, before, allowed):
    problems = []
    if result.returncode not in STATUSES:
        problems.append("status %d" % result.returncode)
    if b"Sanitizer" in result.stderr or b"runtime error" in result.stderr:
        problems.append("sanitizer report")
    # Nothing appears in root's folder but the product and its staging or
    # replaced copies; the sentinel stays.
    try:
        with open(os.path.join(root, b"sentinel"), "rb") as f:
            if f.read() != b"root's":
                problems.append("sentinel changed")
    except OSError as error:
        problems.append("sentinel: %s" % error)
    for full, (mode, uid, size) in snapshot(root).items():
        if full in before:
            continue
        relative = full[len(root) + 1:]
        if not relative.split(b"/")[0].lstrip(b".").startswith(allowed):
            problems.append("unexpected item %r" % full)
        if not stat.S_ISLNK(mode) and mode & 0o7022:
            problems.append("mode %o on %r" % (mode, full))
        if uid != 0:
            problems.append("owner %d of %r" % (uid, full))
        if stat.S_ISREG(mode):
            with open(full, "rb") as f:
                if SECRET in f.read():
                    problems.append("secret copied to %r" % full)
            for key in os.listxattr(full, follow_symlinks=False):
                if not key.startswith("user."):
                    problems.append("attribute %s on %r" % (key, full))
    # Nothing new outside the two folders.
    outside = sorted(set(os.listdir(top)) - {b"root", b"mine", b"secret", b".Trash-%d" % USER.pw_uid})
    if outside:
        problems.append("written outside: %r" % outside)
    return problems


def one_case(rng, top):
    root = os.path.join(top, b"root")
    mine = os.path.join(top, b"mine")
    secret_folder = os.path.join(top, b"secret")
    os.mkdir(root, 0o755)
    os.mkdir(mine, 0o755)
    os.mkdir(secret_folder, 0o700)
    secret = os.path.join(secret_folder, b"file")
    with open(secret, "wb") as f:
        f.write(SECRET)
    os.chmod(secret, 0o600)
    with open(os.path.join(root, b"sentinel"), "wb") as f:
        f.write(b"root's")
    source = os.path.join(mine, b"Product.app")
    os.makedirs(os.path.join(source, b"Contents"))
    if rng.random() < 0.8:
        with open(os.path.join(source, b"Contents", b"Info.plist"), "wb") as f:
            f.write(b"<plist/>")
    links = []
    random_tree(rng, source, root, secret, links)
    random_tree(rng, mine, root, secret, links)
    if rng.random() < 0.3:
        os.makedirs(os.path.join(root, b"Product.app", b"Contents"), exist_ok=True)
    chown_tree(mine)
    for name in links:
        if not os.path.lexists(name):
            os.link(secret, name)
    os.chmod(top, 0o755)
    before = snapshot(root)
    sources = [source, os.path.join(mine, rng.choice(NAMES)), secret_folder, b"/root", b"/proc/1/root",
               b"relative", b"", source + b"/..", source + b"/Contents"]
    destinations = [os.path.join(root, b"Product.app"), os.path.join(mine, rng.choice(NAMES), b"Product.app"),
                    os.path.join(root, b"..", b"Product.app"), os.path.join(root, b"Product.app", b"x"),
                    source, source + b"/Contents/Product.app", b"/", b"",
                    os.path.join(root, b"x" * 300, b"Product.app")]
    # Mostly the plausible vector, so that most runs copy a hostile tree.
    argv = [source if rng.random() < 0.7 else rng.choice(sources),
            destinations[0] if rng.random() < 0.6 else rng.choice(destinations)]
    if rng.random() < 0.2:
        argv.append(rng.choice(sources + [mine]))
    if rng.random() < 0.05:
        argv = argv[: rng.randint(0, 4)]
    env = {"PATH": "/usr/bin:/bin", "PKEXEC_UID": str(USER.pw_uid),
           "ASAN_OPTIONS": "detect_leaks=0", "UBSAN_OPTIONS": "print_stacktrace=1"}
    try:
        result = subprocess.run([TOOL] + argv, env=env, capture_output=True, timeout=30)
    except subprocess.TimeoutExpired:
        return argv, ["timed out"]
    STATUS_COUNTS[result.returncode] = STATUS_COUNTS.get(result.returncode, 0) + 1
    # With a wrapper whose folder is root's, the wrapper's items go there too.
    allowed = (b"Product",)
    if len(argv) == 3 and os.path.isdir(argv[2]):
        allowed += tuple(name.lstrip(b".") for name in os.listdir(argv[2]) if name.lstrip(b"."))
    return argv, check(result, top, root, before, allowed)


def main():
    deadline = time.time() + SECONDS
    runs = failures = 0
    seed = int(time.time())
    while time.time() < deadline:
        rng = random.Random(seed + runs)
        top = tempfile.mkdtemp(prefix="kv-fuzz-").encode()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64m", "kv-fuzz", top], check=True)
        try:
            argv, problems = one_case(rng, top)
            if problems:
                failures += 1
                print("seed %d: %r: %s" % (seed + runs, argv, "; ".join(problems[:5])), flush=True)
        finally:
            subprocess.run(["umount", "-l", top])
            os.rmdir(top)
        runs += 1
    print("train fuzz: %d runs in %.0f s, %d with a fault (seeds from %d); exit statuses %s"
          % (runs, SECONDS, failures, seed, dict(sorted(STATUS_COUNTS.items()))))
    sys.exit(1 if failures else 0)


main()
