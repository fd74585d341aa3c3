#!/usr/bin/env bash
# A launcher update and a game update, end to end, in a few seconds: builds what is missing,
# publishes launcher 0.2.0 (a bundle that really is 0.2.0, sealed with the build's development
# key) and game 0.4.2 with zentho-release, serves them from a private nginx on 127.0.0.1, and
# opens a player's copy of the 0.1.190 launcher for an invite link. The launcher replaces itself
# with 0.2.0 and the new launcher downloads, verifies, installs and starts game 0.4.2, then quits;
# the server stops with it.
#
#   tools/demo.sh                 in a desktop session
#   xvfb-run -a tools/demo.sh     without one (the windows are drawn on a virtual display)
#
# Environment: ZENTHO_BUILD_DIR (default: build) is the build folder to use or make; it must
# trust its own development key (no ZENTHO_SIGNING_PUBLIC_KEY), which seals the 0.2.0 bundle.
# Everything else lives in a fresh temporary folder, named at the end: the player's copy of the
# launcher (the update replaces that copy, never the build's bundle), a data folder of its own
# (so every run shows real downloads, and the user's own launcher storage is never touched), the
# release and the server. Nothing outside it and the build folder is changed.
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ZENTHO_BUILD_DIR:-$source_dir/build}
bundle=$build_dir/ZenthoLauncher.app
launcher=$bundle/Contents/MacOS/ZenthoLauncher
release_tool=$build_dir/tools/zentho-release
launcher_020=$build_dir/launcher-0.2.0/ZenthoLauncher.app
game_042=$build_dir/standin-0.4.2/zentho
development_key=$build_dir/signing/development.key
nginx=/usr/sbin/nginx

if [ -t 1 ]; then
    say() { printf '\033[1mdemo:\033[0m %s\n' "$*"; }
else
    say() { printf 'demo: %s\n' "$*"; }
fi
fail() { printf 'demo: %s\n' "$*" >&2; exit 1; }

[ -x "$nginx" ] || fail "nginx is missing; run tools/install-deps.sh first"

# 1. Build what is missing (an up-to-date build takes a moment).
# Configuring first, every time, lets make know targets added since the folder was last
# configured; on a configured folder it takes a moment.
say "configuring $build_dir"
mkdir -p "$build_dir"
cmake -S "$source_dir" -B "$build_dir" >"$build_dir/demo-configure.log" 2>&1 ||
    { cat "$build_dir/demo-configure.log" >&2; fail "configuring failed"; }
say "building launchers 0.1.190 and 0.2.0, zentho-release and the 0.4.2 stand-in game"
cmake --build "$build_dir" -j"$(nproc)" --target ZenthoLauncher ZenthoLauncher-0.2.0 zentho-release \
    zentho-standin-0.4.2 \
    >"$build_dir/demo-build.log" 2>&1 || { tail -n 30 "$build_dir/demo-build.log" >&2; fail "the build failed"; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zentho-demo.XXXXXX")
mkdir -p "$work/www" "$work/nginx/logs" "$work/game" "$work/data" "$work/Applications" "$work/src"
nginx_pid=
stop_server() {
    if [ -n "$nginx_pid" ] && kill -0 "$nginx_pid" 2>/dev/null; then
        kill "$nginx_pid" 2>/dev/null || true
        wait "$nginx_pid" 2>/dev/null || true
        say "release server stopped"
    fi
    nginx_pid=
}
trap stop_server EXIT
trap 'exit 130' INT TERM

# 2. A release server on a free loopback port, plain HTTP: the manifests' digests protect the
#    archives, and the manifests themselves are read from local files.
port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
for attempt in 1 2 3 4 5 6 7 8 9 10; do
    port=$((20000 + RANDOM % 20000))
    port_is_open "$port" && continue
    cat >"$work/nginx/nginx.conf" <<EOF
daemon off;
master_process off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 64; }
http {
    access_log $work/nginx/logs/access.log;
    client_body_temp_path $work/nginx/body;
    proxy_temp_path $work/nginx/proxy;
    fastcgi_temp_path $work/nginx/fastcgi;
    uwsgi_temp_path $work/nginx/uwsgi;
    scgi_temp_path $work/nginx/scgi;
    types { application/json json; application/gzip gz; }
    default_type application/octet-stream;
    server {
        listen 127.0.0.1:$port;
        root $work/www;
    }
}
EOF
    "$nginx" -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/logs/error.log" &
    nginx_pid=$!
    for _ in $(seq 50); do
        port_is_open "$port" && break
        kill -0 "$nginx_pid" 2>/dev/null || break
        sleep 0.1
    done
    port_is_open "$port" && break
    stop_server
done
[ -n "$nginx_pid" ] || fail "nginx did not start: $(tail -n 3 "$work/nginx/logs/error.log" 2>/dev/null)"
say "release server on http://127.0.0.1:$port (nginx, pid $nginx_pid)"

# 3. Publish launcher 0.2.0 and game 0.4.2 the way a release engineer does: seal, pack (which
#    checks the seal against the keys the launcher trusts and the bundle's own version), verify,
#    then publish, archives first and manifests last.
url_base="http://127.0.0.1:$port/release"
cp -a "$launcher_020" "$work/src/ZenthoLauncher.app"
"$release_tool" sign-bundle --key "$development_key" "$work/src/ZenthoLauncher.app" ||
    fail "sealing the 0.2.0 launcher failed"
"$release_tool" pack --platform macos-launcher-arm64 --version 0.2.0 --executable ZenthoLauncher.app \
    --url-base "$url_base" --out "$work/dist" "$work/src/ZenthoLauncher.app" >"$work/pack-launcher.txt" ||
    fail "packing the 0.2.0 launcher failed (is $build_dir built with its own development key?)"
cp "$game_042" "$work/game/zentho"
"$release_tool" pack --platform macos-arm64 --version 0.4.2 --executable zentho \
    --url-base "$url_base" --out "$work/dist" "$work/game" >"$work/pack-game.txt"
for release in launcher game; do
    manifest=$(sed -n 's/^manifest: //p' "$work/pack-$release.txt")
    archive=$(sed -n 's/^archive: //p' "$work/pack-$release.txt")
    say "$("$release_tool" verify "$manifest" "$archive")"
    say "  $(basename "$archive"): $(sed -n 's/^size: //p' "$work/pack-$release.txt") bytes," \
        "sha256 $(sed -n 's/^sha256: //p' "$work/pack-$release.txt")"
done
"$release_tool" publish --to "$work/www" "$work/dist/macos-launcher-arm64-manifest.json" \
    "$work/dist/macos-arm64-manifest.json" | sed 's/^/      /'

# 4. The player's copy of launcher 0.1.190, opened for an invite link, which presses its main
#    button.
bundle=$work/Applications/ZenthoLauncher.app
launcher=$bundle/Contents/MacOS/ZenthoLauncher
cp -a "$build_dir/ZenthoLauncher.app" "$bundle"
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
    say "no display: running offscreen (try: xvfb-run -a tools/demo.sh)"
    export QT_QPA_PLATFORM=offscreen
fi
export XDG_DATA_HOME="$work/data"
if [ -z "${XDG_RUNTIME_DIR:-}" ]; then
    mkdir -m 700 "$work/runtime"
    export XDG_RUNTIME_DIR="$work/runtime"
fi
export ZENTHO_UPDATE_MANIFEST="file://$work/www/release/macos-arm64-manifest.json"
export ZENTHO_LAUNCHER_UPDATE_MANIFEST="file://$work/www/release/macos-launcher-arm64-manifest.json"
export ZENTHO_STANDIN_RECORD="$work/game-started.txt"
invite="zentho://invite/demo-room?from=demo"
say "opening launcher $("$launcher" --version) for $invite"
status=0
timeout 120 "$launcher" "$invite" || status=$?
[ "$status" -eq 0 ] || fail "launcher 0.1.190 exited with status $status (files: $work)"

# 5. It has handed its bundle to the finish script and quit; the script swaps the bundles once
#    it has gone and starts the new launcher from the same place.
launcher_pids() {
    for proc in /proc/[0-9]*; do
        [ "$(readlink "$proc/exe" 2>/dev/null)" = "$launcher" ] && echo "${proc#/proc/}"
    done
    return 0
}
for _ in $(seq 300); do
    new_pid=$(launcher_pids | head -n 1)
    [ -n "$new_pid" ] && [ "$("$launcher" --version 2>/dev/null)" = 0.2.0 ] && break
    sleep 0.1
done
[ -n "$new_pid" ] || fail "the new launcher did not start (files: $work)"
backup=$(cd "$work/data/Zentho/launcher" && ls -d launcher-backup-*.app)
say "launcher 0.1.190 replaced itself: $bundle now answers --version $("$launcher" --version);"
say "  the old bundle is $backup ($("$work/data/Zentho/launcher/$backup/Contents/MacOS/ZenthoLauncher" --version))"

# A new launcher that was not handed the invite waits for the player: hand it the link the way
# the desktop does, to the window that is already open.
if [ -z "$(tr '\0' '\n' <"/proc/$new_pid/cmdline" | sed -n 2p)" ]; then
    say "handing $invite to the new launcher (pid $new_pid)"
    "$launcher" "$invite"
fi
for _ in $(seq 1200); do
    [ -z "$(launcher_pids)" ] && break
    sleep 0.1
done
if [ -n "$(launcher_pids)" ]; then
    kill "$new_pid" 2>/dev/null || true
    fail "launcher 0.2.0 did not finish within 120 s (files: $work)"
fi
stop_server

# 6. What happened.
installed=$work/data/Zentho/launcher/versions/0.4.2
if [ -x "$installed/zentho" ] && grep -q '^version=0.4.2$' "$work/game-started.txt" 2>/dev/null; then
    say "launcher 0.2.0 downloaded, verified and installed ZENTHO 0.4.2 into"
    say "  $installed"
    say "and started it, then quit. The game was handed:"
    sed 's/^/      /' "$work/game-started.txt"
    game_pid=$(sed -n 's/^pid=//p' "$work/game-started.txt")
    if kill -0 "$game_pid" 2>/dev/null; then
        say "ZENTHO 0.4.2 is still running (pid $game_pid): close its window or run: kill $game_pid"
    fi
    say "demo files: $work"
    exit 0
fi
fail "launcher 0.2.0 did not install and start ZENTHO 0.4.2 (files: $work)"
