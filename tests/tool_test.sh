#!/usr/bin/env bash
# Runs the command-line tool, whose path is given, as its users do.
set -uo pipefail
[ -n "${BOUNDED-}" ] || BOUNDED=yes exec timeout 1200 "$0" "$@"
tool=$(realpath "$1") && [ -x "$tool" ] || exit 1
manual=$(realpath "$(dirname "$0")/../tool/tarn-comm.1")
scratch=$(mktemp -d)
cd "$scratch" || exit 1
trap 'kill $(jobs -p) 2> /dev/null; wait; rm -rf "$scratch"' EXIT
failures=0

# check WHAT COMMAND...
check() {
  "${@:2}" && return
  echo "FAILED: ${1:0:1000}"
  failures=$((failures + 1))
}

# patient WORD...
# Runs the tool with more time for an answer than it takes itself, for a busy machine.
patient() {
  case ${1-} in
    call) set -- call -t 300 "${@:2}" ;;
    ping) set -- ping -W 300 "${@:2}" ;;
  esac
  exec timeout 600 "$tool" "$@"
}

# await FILE PATTERN
# Waits until the file has such a line.
await() {
  for _ in {1..6000}; do
    grep -qsE -e "$2" "$1" && return
    sleep 0.01
  done
  check "no '$2' in $1" false
}

# expect STATUS PATTERN WORD...
# Runs the tool with the words: its exit status, and a line of what it prints, are as given. No line
# may come from the library itself.
expect() {
  (patient "${@:3}") > out 2> err < input
  local status=$?
  [ $status -eq "$1" ] && grep -qE -e "$2" out err - <<< "" &&
    ! grep -q comm_socket_v4 err && return
  check "tarn-comm ${*:3}: status $status, wanted $1 and '$2': $(head -20 out err)" false
}

# start PATH WORD...
# Runs the tool in the background, until it listens on PATH; its output goes to PATH.out.
declare -A running
start() {
  "$tool" "${@:2}" > "$1.out" 2>&1 &
  running[$1]=$!
  await "$1.out" "listening on"  # The file is there before somebody listens.
}

# stop SIGNAL PATH
# The one that listens on PATH ends well, takes its socket file along, and the library was content.
stop() {
  kill "-$1" "${running[$2]}" && wait "${running[$2]}"
  check "status after SIG$1: $?" [ $? -eq 0 ]
  check "socket file after SIG$1" [ ! -e "$2" ]
  check "lines of the library in $2.out" \
    [ "$(grep comm_socket_v4 "$2.out" | grep -vc "puts new connections off")" -eq 0 ]
}

# raw PATH FILE PERL
# A client that follows no rules: $p holds the file, S is the connection.
raw() {
  perl -MSocket -e 'alarm 300; ($path, $file, $code) = @ARGV; open F, $file; $/ = undef; $p = <F>;
    socket S, AF_UNIX, SOCK_SEQPACKET, 0; connect S, sockaddr_un $path or die $!;
    eval $code; die $@ if $@' "$@"
}

# lone PATH PERL
# A server that follows no rules, for one client: request() receives into $r, and event(N) sends the
# packet $p, as a response with that message id.
lone() {
  rm -f "$1" "$1.up"
  perl -MSocket -e 'alarm 300; ($path, $code) = @ARGV; $SIG{PIPE} = "IGNORE"; open F, "good";
    $/ = undef; $p = <F>; socket S, AF_UNIX, SOCK_SEQPACKET, 0; bind S, sockaddr_un $path;
    listen S, 9; open U, ">", "$path.up"; print U "up"; close U; accept C, S;
    sub request { recv C, $r = "", 70000, 0; length $r }
    sub answer { substr($_[0], 32, 1) = "\0"; send C, $_[0], 0 }
    sub event { substr($p, 16, 8) = pack "Q", shift; answer $p }
    eval $code; die $@ if $@' "$@" &
  await "$1.up" up
}

patch() {  # FILE OFFSET BYTES
  printf '%b' "$3" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

echo content | tee file > input

# --- Usage
expect 2 "^usage: tarn-comm COMMAND"
expect 0 "^tarn-comm [0-9.]+$" --version
expect 2 "^tarn-comm: unknown command 'fry'" fry
for command in call serve ping proxy decode; do
  expect 0 "^usage: tarn-comm $command" "$command" --help
  expect 2 "^tarn-comm $command: unrecognized option '--nonsense'" "$command" --nonsense
done
options() { sed -E 's/[\\"]//g; s/ *, +/, /g' | grep -oE -- "$1" | sort -u; }
for pattern in ' -[A-Za-z], --[a-z-]+' '--[a-z][a-z-]+'; do
  check "the options of the manual" diff <(options "$pattern" < "$manual") \
    <(for command in "" call serve ping proxy decode; do "$tool" $command --help; done |
      options "$pattern")
done
# shellcheck source=tool/tarn-comm.bash-completion
. "${manual%.1}.bash-completion"
completed() { COMP_WORDS=("$tool" "$@") COMP_CWORD=$#; _tarn_comm "$tool"; echo "${COMPREPLY[*]}"; }
check "completion" diff <(completed p; completed --v; completed call --mes; completed ping -f f) \
  <(printf '%s\n' "ping proxy" --version --message-id full)
expect 0 "sees the proxy's process, user and group ids" proxy --help
expect 2 "call: PATH is empty" call "" x
expect 2 "ping: --count: '0' is out of range" ping -c 0 s
expect 2 "serve: the path has 120 characters" serve "$(printf '%0120d' 0)"
expect 2 "serve: an abstract name has neither --mode nor --group" serve --mode 600 @s
expect 2 "serve: an abstract name .* nor has a descriptor" serve --mode 600 fd:3
expect 1 "call: cannot use descriptor 999: Bad file descriptor" call fd:999 x
expect 1 "call: cannot use descriptor 0: Socket operation" call fd:0 x
expect 1 "serve: cannot listen on 'fd:0': .*Socket operation on non-socket" serve fd:0
expect 2 "proxy: SERVER_PATH is connected to for each client" proxy s fd:3
expect 2 "proxy: --mode: '1777' is not an octal mode" proxy --mode 1777 s t
expect 2 "serve: --group: there is no group 'no such'" serve --group "no such" s
expect 2 "serve: --exec and an answer of its own exclude" serve --exec true s answer
expect 2 "argument 2: '12x' is not a number" call s x ok uint64:12x
expect 2 "argument 1: '9223372036854775808' is out of range" call s x int64:9223372036854775808
expect 2 "argument 1: an empty text" call s x ""
expect 2 "argument 1: json is for pairs only" call s x json:1
expect 2 "pair 'n': '' is not a number" call s x -p n=uint64:1,
expect 2 "pair 'b': 'abc' is not made of pairs" call s x -p b=binary:abc
expect 2 "the packet has 655[0-9]* bytes, a receiver takes at most 65551" \
  call s x -p "t=$(printf '%065500d' 0)"
expect 1 "call: cannot open 'missing': No such file" call s x --fd missing
expect 1 "call: cannot connect to 's': No such file" call s x
expect 1 "serve: cannot listen on 'file': .*already occupied by file" serve file

# --- An echo, and every kind of value
start echo serve echo
expect 1 "serve: cannot listen on 'echo': .*another process is listening" serve echo
# shellcheck disable=SC2054  # The commas belong to the values.
all=(hello text:a:b uint64:0xff int64:-9223372036854775808 double:-0.5 -p empty= -p 'j=json:{"a":1}'
  -p u=uint64:1,0x10 -p i=int64:-1,2 -p d=double:1.5 -p none=uint64: -p b=binary:00ff
  -p c=fourcc:ABCD:0102 -p "f=binary:@file" -d bytes --async --multipart last --stream-id 5
  --message-id 0x10)
expect 0 "Asynchronous Response" call echo "${all[@]}"
for line in "client 1 \(pid [0-9]+, uid $UID, gid [0-9]+\): 'hello'" 'Message ID: 16 \(0x10\)' \
  'Stream ID:  5$' 'Multipart:  Last' 'Command:    hello' \
  'Argv\[0\]:    a:b' 'Argv\[1\]\(UINT64\): 255 \(0xff\)' \
  'Argv\[2\]\(INT64\): -9223372036854775808' 'Argv\[3\]\(DOUBLE\): -0\.5$' '^  empty: $' \
  '^  j:\(JSON\) \{"a":1\}' '^  u:\(UINT64\) 1, 16$' '^  i:\(INT64\) -1, 2$' \
  '^  d:\(DOUBLE\) 1\.5$' '^  none:\(UINT64\) $' '^  b:\(BINARY\) 00 ff$' "^  c:\('ABCD'\) 01 02$" \
  '^  f:\(BINARY\) 63 6f .* 0a$' \
  'Data:       5 bytes' '^  bytes$'; do
  check "$line in the response" grep -qE "$line" out echo.out
done
expect 0 '^\*Argv\[0\]\(INT64\)@65: 7' call echo x int64:7 -f full --time
check "the time" grep -qE '^round trip: [0-9]+\.[0-9]{3} ms$' err
expect 1 "the response is error 7: sour" call echo x -f none --error-code 7 --error-string sour
expect 0 "" call --no-reply echo "once only"
check "nothing is printed of it" [ ! -s out ]
printf 'a\033[1mb\0c' > input
expect 0 'a\\x1b\[1mb\\x00c' call echo x -D -
expect 0 "" call echo x -D - -f data
check "data as it is" cmp -s input out
expect 0 "^  file, read-write, 0 bytes, $PWD/new$" call echo x --fd file --fd-rw new --save-fds saved
expect 0 "^  l:.*, 18, 19,$" call echo x -p "l=uint64:$(seq -s, 99)"
check "a long list takes several lines" grep -qE '^    20, 21, .* 38,$' out
check "a saved descriptor" cmp -s file saved/descriptor-0
expect 1 "folder 'saved' is not empty" call echo x --save-fds saved

# --- Sockets that somebody else has opened
cat > started << 'END'
use Socket; $^F = 99; socket S, AF_UNIX, SOCK_SEQPACKET, 0; $name = sockaddr_un "given";
(shift eq "listen" ? bind(S, $name) && listen(S, 9) : connect S, $name) or die $!;
exec map { s/FD/"fd:" . fileno S/er } @ARGV
END
perl started listen "$tool" serve FD > given.out 2>&1 &
running[given]=$!
await given.out "listening on 'given'"
check "a socket to listen on and a connection" perl started connect "$tool" call -t 300 FD x > out
rm given  # It is not the server's.
stop TERM given

# --- ping
expect 0 "^3 sent, 3 answered, 0% lost" ping -c 3 -i 0.01 -s 1000 echo
check "a line each" [ "$(grep -c "^1068 bytes from echo: seq=[123] time=" out)" -eq 3 ]
check "percentiles" grep -qE '^percentiles 50/90/99/99.9 = ([0-9.]+[/ ]){4}ms$' out
"$tool" ping -W 300 -i 0 echo > interrupted &
await interrupted "seq=1 "
kill -INT $! && wait $!
check "statistics after SIGINT" grep -qE "^([0-9]+) sent, \1 answered, 0% lost" interrupted
patient ping -i 0.01 echo 2> err | read -r
check "ping ends with its reader" grep -q "cannot write standard output: Broken pipe" err
for words in --version "call --help" "call echo x" "call echo x -D -" "ping -c 1 echo" \
  "serve shut" "proxy shut echo" decode; do
  # shellcheck disable=SC2086  # These are words.
  (patient $words) <&- >&- 2> err
  check "$words: status $? with the standard descriptors closed" [ $? -eq 1 ]
  check "$words: $(cat err)" grep -qE "cannot (read standard input|write standard output)" err
done
patient ping -i 0.01 echo > left_alone 2>&1 &
await left_alone "seq=1 "
stop TERM echo
wait $!
check "a ping that loses its server: $?" [ $? -eq 1 ]
check "its end" grep -q "closed the connection" left_alone
check "its statistics" grep -qE "^[1-9][0-9]* sent, [1-9]" left_alone

# --- Other answers
start fixed serve --uid $((UID + 1)) --uid $UID -f none --error-code 3 --error-string "not today" \
  --fd file fixed answer uint64:1
expect 1 "Message ID: 9" call fixed question --message-id 9
expect 1 "the response is error 3: not today" call fixed question -f none --save-fds given
check "the server's file" cmp -s file given/descriptor-0
stop INT fixed

# shellcheck disable=SC2016  # The served shell expands these.
start exec serve --exec-timeout 9999 exec \
  --exec 'cat; echo "$#,$1,$2,$TARN_COMM_COMMAND,$TARN_COMM_UID"
          [ "$1" != slow ] || { echo begun >> slow; exec sleep 9999; }
          exit "${3:-0}"'
start hasty serve --exec-timeout 0.1 --exec "sleep 9999" hasty
expect 1 "was not done in time" call hasty run
stop TERM hasty
expect 0 "^  2,a b;true,-5,run,$UID$" call exec run "a b;true" int64:-5
expect 0 "^  content$" call exec run -D file
expect 1 "Error str:  the command exited with status 7" call exec run a b 7
"$tool" call -t 9999 exec run slow > /dev/null &
await slow begun
expect 0 "^  1,fast" call exec run fast  # while the slow one runs
kill $!
expect 1 "no response in time" call -t 1 exec run slow
kill -STOP "${running[exec]}"
expect 1 "^2 sent, 0 answered, 100% lost" ping -c 2 -i 0 -W 0.1 exec
kill -CONT "${running[exec]}"
stop TERM exec

# --- Between a client and a server
start server serve -f none server
start proxy proxy -f none --save packets proxy server
expect 0 "Argv" call proxy "${all[@]}" --fd file --save-fds passed
check "a descriptor through the proxy" cmp -s file passed/descriptor-0
check "a request" grep -qE "client 1 .* -> server: 'hello', .* 1 descriptor, saved" proxy.out
check "its answer" grep -qE "client 1 .* <- server: 'hello', .* 1 descriptor, saved" proxy.out
expect 0 "^100 sent, 100 answered" ping -q -c 100 -i 0 -s 20000 proxy
pids=()
for i in {1..50}; do
  patient call proxy x -d "$i" -f data > "many$i" 2>&1 & pids+=($!)
done
wait "${pids[@]}"
for i in {1..50}; do check "client $i: $(cat "many$i")" [ "$(cat "many$i")" = "$i" ]; done
cp packets/000001-* good
cp good bad && patch bad 44 '\x7f'
# shellcheck disable=SC2016  # Perl expands these.
check "only the invalid packet is lost" raw proxy bad 'send S, $p, 0; substr($p, 44, 1) = "\x04";
  send S, $p, 0; recv S, $r, 70000, 0; length $r == length $p or die "no answer"'
# shellcheck disable=SC2016
check "who reads no answers is held up, and loses none" raw proxy good 'for (; $waits < 50;) {
  substr($p, 16, 8) = pack "Q", $n; $n < 2000 or die "no limit";
  if (send S, $p, MSG_DONTWAIT) { $n++; $waits = 0 } else { $waits++; select $x, $x, $x, 0.01 } }
  for (0 .. $n - 1) { recv S, $r, 70000, 0; unpack("x16Q", $r) == $_ or die "out of order" }'
expect 1 "proxy: folder 'packets' is not empty" proxy --save packets again server
for limit in 23 24; do  # A client takes two descriptors: none is left, or one.
  printf '#!/bin/sh\nulimit -n %s\nexec "%s" "$@"\n' $limit "$tool" > limited && chmod +x limited
  tool=./limited start few$limit proxy --save all$limit few$limit server
  expect 0 "" call few$limit x  # A sanitizer wants descriptors for what it sees the first time.
  # shellcheck disable=SC2016
  check "who comes too late waits or is turned away, others are served" raw few$limit good '
    $SIG{PIPE} = "IGNORE"; sub come { socket $_[0], AF_UNIX, SOCK_SEQPACKET, 0;
      connect $_[0], sockaddr_un $path or die $!; send $_[0], $p, 0 }
    sub served { recv $_[0], $r = "", 70000, 0; length $r }
    come $come[$_] for 0 .. 49; served $come[0] or die "not the first"; close $come[0];
    for (@come[1 .. 49]) { served $_; close $_ } do { come $again } until served $again'
  stop TERM few$limit
done
stop TERM proxy
group=4321
chgrp $group file 2> err || group=$(id -g)
start private proxy --mode 600 --group "$group" --uid $((UID + 1)) private nowhere
expect 1 "the server closed the connection" call private x
check "the mode and the group of private" [ "$(stat -c %a,%g private)" = "600,$group" ]
check "who is turned away" grep -qE "client 1 .* uid $UID, .* turned away: --uid" private.out
stop TERM private
expect 2 "SERVER_PATH leads back" proxy @$$ @$$
start circle proxy circle link
ln -s circle link  # It was not there before.
expect 1 "the server closed the connection" call circle x
check "once around" grep -q "client 2 .* turned away: it is this program itself" circle.out
stop TERM circle
expect 2 "SERVER_PATH leads back" proxy circle ./link
start lonely proxy lonely nowhere
expect 1 "the server closed the connection" call lonely x
check "the proxy says why" grep -q "cannot connect to 'nowhere': No such file" lonely.out
stop HUP lonely

# --- Texts that would command a terminal, forge lines, or be printed thousands of times
python3 - << 'END'
import struct
text = b"a\nforged\t\x7f\x9b\xc2\x9b\xe2\x80\xae\xe2\x80\xa8\xd8\x9c\xed\xa0\x80\xff caf\xc3\xa9"
def packet(text, arguments, pairs, data):
    table = 63 + len(text)
    tables = struct.pack("<I", 63) * arguments + struct.pack("<IIII", 63, 63, 65488, 1) * pairs
    start = table + len(tables)
    body = text + tables + data * (65551 - start)
    return struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, 0, 0, 0, 0, 63, 63, arguments,
                       table * (arguments > 0), pairs, (table + 4 * arguments) * (pairs > 0),
                       start, 65551 - start) + body
open("evil", "wb").write(packet(text + b"x" * 9000 + b"\0", 255, 2000, b"\n"))
open("whole", "wb").write(packet(b"whole\0", 0, 0, b"\x1b"))
END
for format in readable full; do
  start seen serve -f $format seen
  start seen_twice proxy -f $format seen_twice seen
  # shellcheck disable=SC2016
  check "an answer to it" raw seen_twice evil 'send S, $p, 0; recv S, $r, 70000, 0;
    length $r == 65551 or die "no answer"'
  expect 0 "^\*Cut: .* 1000000 characters" decode -f $format evil
  stop TERM seen_twice
  stop TERM seen
  for shown in out seen.out seen_twice.out; do
    check "letters of UTF-8 in $shown" grep -q $'caf\xc3\xa9' $shown
    check "no other bytes in $shown" \
      [ "$(LC_ALL=C tr -d '\n\040-\176\303\251' < $shown | wc -c)" -eq 0 ]
    check "no line of its own in $shown" [ "$(grep -c ^forged $shown)" -eq 0 ]
    check "a limit to $shown" [ "$(wc -c < $shown)" -lt 2300000 ]
  done
done
expect 0 "^  65536  (1b ){15} *\.{15}$" decode -f full whole
check "a packet without overlaps is shown whole" [ "$(grep -c Cut out)" -eq 0 ]

# --- decode
expect 1 "^'good':" decode good file packets/00000*
check "each file" [ "$(grep -c "^.Command: " out)" -eq $((1 + $(printf '%s\n' packets/00000* | wc -l))) ]
check "one is none" grep -q "decode: 'file' is no valid packet: too short" err
on_terminal() { python3 -c 'import pty, sys; pty.spawn(sys.argv[1:])' "$@"; }
check "colours" [ "$(on_terminal env TERM=vt100 NO_COLOR= "$tool" decode good | grep -c $'\033')" -gt 3 ]
check "no colours" [ "$(on_terminal env TERM=vt100 NO_COLOR=1 "$tool" decode good | grep -c $'\033')" -eq 0 ]
broken() {  # OFFSET BYTES PATTERN
  cp good bad && patch bad "$1" "$2" && expect 1 "'bad' is no valid packet: $3" decode bad
}
word_at() { od -An -t u4 -j "$1" -N 4 good | tr -d ' '; }
argv=$(word_at 45) pairs=$(word_at 51)
broken 0 'x' "sighdr wrong \(sighdr at byte 0 is [0-9]+; the packet has [0-9]+ bytes\)"
broken 40 '\0\0\0\0' "command string .*\(command_offset at byte 40 is 0;"
broken $((argv + 7)) '\x09' "argv\[1\] unsupported type 9 .*type_code at byte $((argv + 7)) is 9;"
broken $((pairs + 24)) '\xff\xff' "nv_pair\[1\] value.*_length at byte $((pairs + 24)) is 65535;"
head -c 63 good > input
expect 1 "input is no valid packet: too short: the packet has 63 bytes, at least 64" decode

# --- JSON
json_of() { "$tool" decode -f json "$@"; }
python3 - << 'END'
import struct
# Valid, but nothing that a careful writer makes: a command that is no UTF-8 and would command a
# terminal, values that are absent, empty and cut, a NUL in a text, numbers that JSON lacks.
texts = b"\xff\x1b[1m\0err\xe2\x80\xae\0a\0b\0" + struct.pack("<QQ", 2**64 - 1, 0xfff0000000000001)
at, error, text, numbers, table = 63, 69, 76, 80, 96
arguments = [(0, 0), (0, 2), (68, 0), (numbers, 2), (numbers, 5), (numbers + 8, 3)]
pairs = [(at, text, 3, 0), (error, numbers, 9, 2), (68, numbers + 8, 8, 3), (error, text, 4, 1),
         (error, text, 4, 0x01020304), (error, text, 4, 0x74786574), (error, text, 3, 4)]
tables = b"".join(struct.pack("<I", o | t << 24) for o, t in arguments)
tables += b"".join(struct.pack("<IIII", *p) for p in pairs)
data = b"\xc3\xa9\n\x7f\0\"\\"
open("odd", "wb").write(struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, 2**64 - 1, 2**63 + 1, 7,
    0xfffffffc, error, at, len(arguments), table, len(pairs), table + 4 * len(arguments),
    table + len(tables), len(data)) + texts + tables + data)
END
json_of good > good.json
json_of odd > odd.json
cp good mute
patch mute 63 '\0'
check "an empty command is not lost" grep -q '^{"packet_base64"' <(json_of mute)
json_of evil > evil.json
start json serve -f json --json odd.json json
start between proxy -f none --save sent between json
python3 -m json.tool < good.json > input  # on many lines
cat odd.json evil.json >> input
expect 0 "" call -n -j - between
sent=(sent/*-to-server)
check "a packet to JSON and back is the same" cmp good "${sent[0]}"
check "so is all that an odd packet says" diff odd.json <(json_of "${sent[1]}")
check "and one whose parts lie over each other" cmp evil "${sent[2]}"
expect 1 '^\{"command_base64": "/xtbMW0="' call -f json between x
check "an answer in JSON" cmp out odd.json
python3 - << 'END'
import os, socket
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.connect("json")
fds = [s.fileno(), os.pipe()[0], os.open("/", os.O_PATH), os.memfd_create("\x1b[1m")]
socket.send_fds(s, [open("good", "rb").read()], fds)
s.recv(70000)
END
for kind in socket.*read-write pipe.*read directory.*path 'memfd.*size": 0, "link": "/memfd:\\u001b'; do
  check "a $kind" grep -qE "\"kind\": \"$kind.*\"peer\": \{\"direction\": \"to-server\"" json.out
done
expect 1 "a descriptor is sent only with" call -j <(grep '"memfd"' json.out) json
grep '^{' json.out > json.lines
check "it is valid" python3 -c 'import json; [json.loads(line) for line in open("json.lines")]'
check "it commands no terminal" \
  [ "$(LC_ALL=C tr -d '\n\040-\176\303\251' < json.lines | wc -c)" -eq 0 ]
while IFS=$'\t' read -r pattern text; do
  printf '%b' "${text/BASE64/$(base64 -w 0 good)}" > input
  expect 1 "standard input: $pattern" call -n -j - json
done << 'END'
line 2, column 2: 'x' is not known	{\n "x": 1}
line 1, column 18: 'command' is there twice	{"command": "a", "command": "b"}
line 1, column 1: the packet has no command	{}
line 1, column 1: a packet is an object	[]
line 1, column 12: the command has a NUL	{"command":"\\u0000"}
line 1, column 18: half of a surrogate pair	{"command":"12345\\ud800"}
line 1, column 13: .*not UTF-8	{"command":"\0377"}
line 1, column 13: a control character	{"command":"\t"}
line 1, column 19: expected base64	{"command_base64":"YR=="}
line 1, column 14: expected a whole number .* 18446744073709551615	{"stream_id":18446744073709551616}
line 1, column 14: expected a number	{"stream_id":01}
line 1, column 39: expected a whole number	{"arguments":[{"type":"int64","value":1.0}]}
line 1, column 40: the number is out of range	{"arguments":[{"type":"double","value":1e999}]}
line 1, column 23: 'json' is no type	{"arguments":[{"type":"json","value":""}]}
line 1, column 11: the pair has no name	{"pairs":[{"value":""}]}
line 1, column 16: the lowest four bits	{"user_flags": 8}
line 1, column 1: packet_base64 and other	{"data":"","packet_base64":"BASE64"}
the last object has no end	{"command":"x"
END
perl -e 'print "{\"arguments\":", "[" x 1e6, "]" x 1e6, "}"' > input
expect 1 "line 1, column 15: expected \{" call -j - json
expect 2 "another description of the packet exclude" call -j good.json json x
stop TERM between
stop TERM json

# --- Several packets over one connection
start echo serve -f none echo
"$tool" call -f none -F -j - echo <<< '{"command":"a"}' &
following=$! since=$SECONDS
head -c 3000000 /dev/urandom > big
expect 0 "" call -f data -u big echo put
check "a file in parts comes back" cmp big out
start between proxy -f none --save parts between echo
cp big input
expect 0 "" call -n -u - between put a -p b=c --fd file
check "nothing is lost with answers unread" cmp big <("$tool" decode -f data parts/*-to-server)
check "the first part is one, with the descriptor" grep -q '"multipart": "first", .*"c"' \
  <(json_of parts/000001-*)
stop TERM between
: > input
expect 0 '"multipart": "none", .*"message_id": 7' call -f json -u - --message-id 7 echo put
# shellcheck disable=SC2016  # Perl expands these.
lone lone 'request() && push @q, $r for 1 .. 3; answer $_ for reverse @q; request()'
printf '{"command":"a"}{"command":"b"}\n{"command":"c","message_id":9}' > input
expect 0 "" call -f json -j - lone
check "answers find their requests" diff <(printf '%s\n' 9 2 1) \
  <(sed -E 's/.*"message_id": ([0-9]+).*/\1/' out)
# shellcheck disable=SC2016
follow() { lone lone 'request(); event($_) for 1 .. 3' && expect "$1" "$2" call -f json "${@:3}" lone x; }
follow 0 '"message_id": 3' --follow
follow 0 '"message_id": 2' -c 2
check "no more" [ "$(wc -l < out)" -eq 2 ]
follow 1 "closed the connection after 3 of 9 packets" -c 9
expect 0 '"x"' call -f json -F -t 0.2 echo x
upload() { lone lone "$1" && expect 1 "$2" call -u big -t "${3-300}" lone put; }
upload 'request() for 1 .. 3' "call: the server closed the connection"
upload 'shutdown C, 1; sleep 300' "call: the server closed the connection"
upload 'sleep 300' "call: the server takes no packet in time" 0.3
upload '1 while event 0' "call: the server takes no packet in time" 0.3
# shellcheck disable=SC2016
upload 'substr($p, 24, 1) = "\5"; event 0; sleep 300' "^.Error code: 5"
(patient decode -f json good) > /dev/full 2> err
check "a full disk: $?" [ $? -eq 1 ]
check "a full disk is said" grep -q "cannot write standard output: No space left" err
patient decode evil 2> err | read -r
check "a reader that leaves" grep -q "cannot write standard output: Broken pipe" err
while [ $SECONDS -lt $((since + 7)) ]; do sleep 0.1; done
check "following ends after the time of an answer" kill $following
stop TERM echo

[ $failures -eq 0 ]
