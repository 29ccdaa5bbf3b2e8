// libcrypto's AES routines consult this table of processor features, which libcrypto itself fills from a static
// constructor. The image has none, so the table stays all zero: the routines then choose the road that every 64-bit
// processor can take. Whether AES instructions exist is decided by the driver, which calls the one family or the other.
extern "C"
{
extern unsigned int OPENSSL_ia32cap_P[4];
unsigned int OPENSSL_ia32cap_P[4];
}
