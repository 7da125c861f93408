/* Prints a line for each device that the locator knows. */
#include <stdio.h>
#include <talvorn/talvorn.h>

int main(void) {
  talvorn_client* client = NULL;
  talvorn_device_list* devices = NULL;
  talvorn_status status = talvorn_client_open(NULL, &client);
  if (status == TALVORN_OK) status = talvorn_client_get_devices(client, &devices);
  for (size_t i = 0; i < talvorn_device_list_size(devices); ++i) {
    talvorn_device device = {.size = sizeof device};
    if (talvorn_device_list_get(devices, i, &device) == TALVORN_OK)
      printf("%s %s %s\n", device.serial, device.status, device.alias);
  }
  if (status != TALVORN_OK) fprintf(stderr, "devices: %s\n", talvorn_status_text(status));
  talvorn_device_list_free(devices);
  talvorn_client_close(client);
  return status == TALVORN_OK ? 0 : 1;
}
