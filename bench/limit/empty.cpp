// A C++ program that does nothing, linked to what tembrix is linked to: what remains of the time of
// `tembrix --help` is the tool's own.
int main() {
  return 0;
}
