/* A server in C: keeps notes by name for its clients, of a user each his own.
 *
 *   store_server SOCKET
 *
 * Requests are "set" with a name and a text as arguments, "get" with a name, and "list". The answer
 * has the text as its argument, or a pair for each note; or an error code, an errno, and its text.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <tarn_utils_v4/comm_loop.h>

/* What is kept has bounds, like everything that others may fill. No user has all places. */
enum { most_notes = 200, most_of_one = 100, longest_name = 64, longest_text = 512 };

struct note {
  uid_t owner;
  char name[longest_name + 1];
  char text[longest_text + 1];
};

struct store {
  struct note notes[most_notes];
  size_t count;
};

static CommLoop* loop_of_signals;

static void on_signal(int number) {
  (void)number;
  comm_socket_v4_loop_stop(loop_of_signals);
}

static size_t count_of(const struct store* store, uid_t owner) {
  size_t count = 0;
  for (size_t i = 0; i < store->count; ++i) count += store->notes[i].owner == owner;
  return count;
}

static struct note* find(struct store* store, uid_t owner, const char* name) {
  for (size_t i = 0; i < store->count; ++i) {
    struct note* const note = &store->notes[i];
    if (note->owner == owner && strcmp(note->name, name) == 0) return note;
  }
  return NULL;
}

/* Returns 0 or an errno. */
static int set(struct store* store, uid_t owner, const char* name, const char* text) {
  if (*name == '\0' || strlen(name) > longest_name || strlen(text) > longest_text) return EINVAL;
  struct note* note = find(store, owner, name);
  if (note == NULL) {
    if (store->count == most_notes) return ENOSPC;
    if (count_of(store, owner) == most_of_one) return EDQUOT;
    note = &store->notes[store->count++];
    note->owner = owner;
    strcpy(note->name, name);
  }
  strcpy(note->text, text);
  return 0;
}

/* Null without memory. */
static comm_socket_v4_packet* begin_answer(const comm_socket_v4_packet* request, int error) {
  comm_socket_v4_packet* const answer = comm_socket_v4_packet_create();
  if (answer == NULL) return NULL;
  comm_socket_v4_packet_set_message_id(answer, comm_socket_v4_packet_get_message_id(request));
  comm_socket_v4_packet_set_error_code(answer, (uint64_t)error);
  comm_socket_v4_packet_begin_writing(answer, 0, comm_socket_v4_packet_get_command(request),
                                      error != 0 ? strerror(error) : NULL);
  return answer;
}

static comm_socket_v4_packet* answer_to(struct store* store, uid_t owner,
                                        const comm_socket_v4_packet* request) {
  const char* const command = comm_socket_v4_packet_get_command(request);
  const char* const name = comm_socket_v4_packet_get_argv(request, 0);
  if (strcmp(command, "set") == 0)
    return begin_answer(request,
                        set(store, owner, name, comm_socket_v4_packet_get_argv(request, 1)));
  if (strcmp(command, "get") == 0) {
    const struct note* const note = find(store, owner, name);
    comm_socket_v4_packet* const answer = begin_answer(request, note != NULL ? 0 : ENOENT);
    if (answer != NULL && note != NULL) comm_socket_v4_packet_write_argv(answer, note->text);
    return answer;
  }
  if (strcmp(command, "list") == 0) {
    comm_socket_v4_packet* const answer = begin_answer(request, 0);
    for (size_t i = 0; answer != NULL && i < store->count; ++i)
      if (store->notes[i].owner == owner)
        comm_socket_v4_packet_write_nv_pair(answer, store->notes[i].name, store->notes[i].text);
    return answer;
  }
  return begin_answer(request, ENOSYS);
}

static int on_connect(void* user, CommLoop* loop, CommLoopId peer, const struct ucred* who) {
  (void)user;
  return comm_socket_v4_loop_set_tag(loop, peer, who->uid) == 0;
}

static void on_packet(void* user, CommLoop* loop, CommLoopId from, comm_socket_v4_packet* request) {
  const uid_t owner = (uid_t)comm_socket_v4_loop_get_tag(loop, from);
  comm_socket_v4_packet* const answer = answer_to(user, owner, request);
  /* Whoever cannot be answered is told so by the end. */
  if (answer == NULL || comm_socket_v4_packet_write_end(answer) != 0 ||
      comm_socket_v4_loop_send(loop, from, answer) < 0)
    comm_socket_v4_loop_disconnect(loop, from);
  comm_socket_v4_packet_release(answer);
}

static int fail(const char* what) {
  fprintf(stderr, "store_server: %s: %s\n", what, strerror(errno));
  return EXIT_FAILURE;
}

static int serve(CommLoop* loop, CommLoopHandler* handler, const char* path) {
  if (comm_socket_v4_loop_serve(loop, path, handler, NULL).generation == 0) return fail(path);
  loop_of_signals = loop;
  struct sigaction action = {.sa_handler = on_signal};
  if (sigaction(SIGTERM, &action, NULL) != 0 || sigaction(SIGINT, &action, NULL) != 0)
    return fail("sigaction");
  printf("listens on %s\n", path);
  fflush(stdout);
  const int status = comm_socket_v4_loop_run(loop) == 0 ? EXIT_SUCCESS : fail("run");
  signal(SIGTERM, SIG_IGN); /* The loop goes now. */
  signal(SIGINT, SIG_IGN);
  return status;
}

int main(int argc, char** argv) {
  static struct store store;
  const CommLoopCallbacks callbacks = {
      .user = &store, .on_connect = on_connect, .on_packet = on_packet};
  if (argc != 2) {
    fputs("usage: store_server SOCKET\n", stderr);
    return 2;
  }
  CommLoop* const loop = comm_socket_v4_loop_create();
  if (loop == NULL) return fail("loop");
  CommLoopHandler* const handler = comm_socket_v4_loop_handler_create(&callbacks);
  const int status = handler != NULL ? serve(loop, handler, argv[1]) : fail("handler");
  comm_socket_v4_loop_destroy(loop); /* before its handler */
  comm_socket_v4_loop_handler_destroy(handler);
  return status;
}
