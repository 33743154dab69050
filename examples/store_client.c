/* A client in C of store_server.
 *
 *   store_client SOCKET set NAME TEXT
 *   store_client SOCKET get NAME
 *   store_client SOCKET list
 */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarn_utils_v4/comm_client.h>

enum { patience_us = 5000000 };

static int fail(const char* what, const char* why) {
  fprintf(stderr, "store_client: %s: %s\n", what, why);
  return EXIT_FAILURE;
}

/* A terminal obeys control characters. */
static void print(FILE* out, const char* text, const char* end) {
  for (; *text != '\0'; ++text) fputc(iscntrl((unsigned char)*text) ? '?' : *text, out);
  fputs(end, out);
}

/* How many arguments a command has. Who sent fewer or more would be answered, but not as meant. */
static int is_usage(int argc, char** argv) {
  static const struct {
    const char* command;
    int count;
  } known[] = {{"set", 3}, {"get", 2}, {"list", 1}};
  for (size_t i = 0; i < sizeof known / sizeof *known; ++i)
    if (strcmp(argv[0], known[i].command) == 0)
      /* An empty argument is none, and those behind it would move up. */
      return argc == known[i].count && (argc < 2 || *argv[1] != '\0');
  return 0;
}

/* Null without memory. */
static comm_socket_v4_packet* make_request(int argc, char** argv) {
  comm_socket_v4_packet* const request = comm_socket_v4_packet_create();
  if (request == NULL) return NULL;
  comm_socket_v4_packet_make_request(request);
  comm_socket_v4_packet_begin_writing(request, 0, argv[0], NULL);
  for (int i = 1; i < argc; ++i) comm_socket_v4_packet_write_argv(request, argv[i]);
  comm_socket_v4_packet_write_end(request);
  return request;
}

static int print_answer(const char* command, const comm_socket_v4_packet* answer) {
  if (comm_socket_v4_packet_get_error_code(answer) != 0) {
    fprintf(stderr, "store_client: error %llu: ",
            (unsigned long long)comm_socket_v4_packet_get_error_code(answer));
    print(stderr, comm_socket_v4_packet_get_error_string(answer), "\n");
    return EXIT_FAILURE;
  }
  if (strcmp(command, "get") == 0) print(stdout, comm_socket_v4_packet_get_argv(answer, 0), "\n");
  for (size_t i = 0; i < comm_socket_v4_packet_nv_entries(answer); ++i) {
    const comm_socket_v4_packet_nv_pair* const pair = comm_socket_v4_packet_get_nv_entry(answer, i);
    print(stdout, comm_socket_v4_packet_get_nv_pair_name(answer, pair), ": ");
    print(stdout, comm_socket_v4_packet_get_nv_pair_value_text(answer, pair), "\n");
  }
  return fflush(stdout) == 0 ? EXIT_SUCCESS : fail("standard output", strerror(errno));
}

static int ask(CommClient* server, const char* path, int argc, char** argv) {
  if (comm_socket_v4_blocking_connect(server, path, patience_us, 0) != 0)
    return fail(path, strerror(errno));
  comm_socket_v4_packet* const request = make_request(argc, argv);
  if (request == NULL) return fail("request", strerror(ENOMEM));
  comm_socket_v4_packet* const answer = comm_socket_v4_blocking_call(server, request, patience_us);
  comm_socket_v4_packet_release(request);
  if (answer == NULL) return fail("no answer", strerror(errno));
  const int status = print_answer(argv[0], answer);
  comm_socket_v4_packet_release(answer);
  return status;
}

int main(int argc, char** argv) {
  if (argc < 3 || !is_usage(argc - 2, argv + 2)) {
    fputs("usage: store_client SOCKET set NAME TEXT | get NAME | list\n", stderr);
    return 2;
  }
  CommClient* const server = comm_socket_v4_blocking_create(NULL);
  if (server == NULL) return fail("client", strerror(errno));
  const int status = ask(server, argv[1], argc - 2, argv + 2);
  comm_socket_v4_blocking_destroy(server);
  return status;
}
