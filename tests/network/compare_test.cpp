// The same facts as ip shows.
