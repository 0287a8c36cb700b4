/* Preloaded: the crypto library has no random bytes to give. Only the daemon's own calls come here.
 */

int RAND_bytes(unsigned char* buffer, int count);

int RAND_bytes(unsigned char* buffer, int count) {
  (void)buffer;
  (void)count;
  return 0;
}
