// Holds the compiled-in images and translations; the resource objects are
// added to this library by the build.
