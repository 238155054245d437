/* Copies a trace into a QUBIX file of another type, with its metadata: copy TYPE IN OUT */
#include <stdio.h>
#include <stdlib.h>
#include <vqpack/vqpack.h>

enum { batch = 4096 };

/* Returns 0, or -1 where one of them has failed. */
static int copy(vqpack_reader* reader, vqpack_writer* writer) {
  vqpack_transaction transactions[batch];
  for (;;) {
    const int64_t got = vqpack_read(reader, transactions, batch);
    if (got < 0) return -1;
    if (got == 0) return vqpack_finish(writer, NULL);
    if (vqpack_write(writer, transactions, (size_t)got) != 0) return -1;
  }
}

/* Prints a failure, if there is one. */
static void report(const char* name, const vqpack_error* error) {
  if (error->code != VQPACK_OK) fprintf(stderr, "%s: %s\n", name, error->text);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: copy TYPE IN OUT\n");
    return 1;
  }
  vqpack_reader* const reader = vqpack_open(argv[2]);
  int status = -1;
  if (vqpack_reader_error(reader)->code == VQPACK_OK) {
    vqpack_metadata metadata;
    const int type = atoi(argv[1]);
    vqpack_metadata_init(&metadata, type);
    if (vqpack_reader_metadata(reader)->file_type >= 0) {
      metadata = *vqpack_reader_metadata(reader);
      metadata.file_type = type;
      metadata.context_coded = type != 0;
    }
    vqpack_writer* const writer = vqpack_create(argv[3], &metadata, VQPACK_WINDOW);
    status = copy(reader, writer);
    report(argv[3], vqpack_writer_error(writer));
    vqpack_writer_close(writer);
  }
  report(argv[2], vqpack_reader_error(reader));
  vqpack_reader_close(reader);
  return status == 0 ? 0 : 1;
}
