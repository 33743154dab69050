// The state of a loop, for people.
#include <cinttypes>
#include <cstdio>

#include "lib/loop_connection.h"
#include "lib/loop_counters.h"
#include "lib/loop_internal.h"

namespace {

const char* state_of(const LoopMember& m) {
  if (m.going) return ", going";
  if (m.finishing) return ", finishing";
  if (m.connecting) return ", connecting";
  if (m.accepts_nobody) return ", accepts nobody";
  return m.put_off_until != LoopMember::never ? ", put off" : "";
}

void print_connection(const LoopMember& m, std::FILE* out) {
  const struct ucred who = loop_connection::peer(m);
  std::fprintf(out,
               "  [%" PRIu64 ":%" PRIu64 "] %s fd=%d, pid %d, uid %u, queued %zu (%" PRIu64
               " bytes)%s%s%s%s\n",
               m.id.slot, m.id.generation, m.kind == LoopKind::client ? "client" : "connection",
               loop_connection::fd(m), who.pid, who.uid, m.queue.size(), m.queued_bytes,
               m.full ? ", full" : "", m.deaf ? ", deaf" : "", m.paused ? ", paused" : "",
               state_of(m));
}

void print_member(const LoopMember& m, std::FILE* out) {
  if (m.is_connection()) return print_connection(m, out);
  if (m.kind == LoopKind::server)
    std::fprintf(out, "  [%" PRIu64 ":%" PRIu64 "] server %s%s%s\n", m.id.slot, m.id.generation,
                 m.home->endpoint->socket_path.c_str(), m.paused ? ", paused" : "", state_of(m));
  else if (m.kind == LoopKind::descriptor)
    std::fprintf(out, "  [%" PRIu64 ":%" PRIu64 "] descriptor %d%s\n", m.id.slot, m.id.generation,
                 m.descriptor, m.paused ? ", paused" : "");
  else
    std::fprintf(out, "  [%" PRIu64 ":%" PRIu64 "] timer\n", m.id.slot, m.id.generation);
}

}  // namespace

void comm_v4_loop::dump(std::FILE* out) const {
  std::fprintf(out, "CommLoop\n");
  loop_counters::print(loop.counters(), out);
  for (const auto& m : members)
    if (m->kind != LoopKind::none) print_member(*m, out);
}
