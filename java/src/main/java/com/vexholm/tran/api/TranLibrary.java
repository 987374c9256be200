package com.vexholm.tran.api;

import java.io.File;

/**
 * Loads libvarn, once for the class loader that this class is in: as {@code varn} from
 * {@code java.library.path}, or else the file that the system property {@code varn.library} names.
 *
 * <p>With the system property {@code varn.absent} set to {@code ignore} a library that cannot be
 * loaded is told in one line on {@link System#err}, and the application runs on untraced.
 *
 * <p>A virtual machine gives a native library to one class loader. In a servlet container the jar
 * therefore belongs into the class loader that all applications share.
 */
public final class TranLibrary {

  // Why it is not loaded, null when it is. The initialisation of this class is what tries, under
  // the virtual machine's lock, and never fails: every later use finds the same answer.
  private static final String FAILURE = tryToLoad();
  private static final boolean ABSENCE_IGNORED = "ignore".equals(property("varn.absent"));

  static {
    if (FAILURE != null && ABSENCE_IGNORED) report("nothing is traced: " + FAILURE);
  }

  private TranLibrary() {}

  /**
   * Loads the library, unless that was tried before.
   *
   * @return whether it is loaded; false only where its absence is to be ignored
   * @throws TranLibraryException when it cannot be loaded
   */
  public static boolean load() {
    if (FAILURE != null && !ABSENCE_IGNORED) throw new TranLibraryException(FAILURE);
    return isLoaded();
  }

  /**
   * Whether the library is loaded; tries to when that was not tried before.
   *
   * @return false when it cannot be loaded
   */
  public static boolean isLoaded() {
    return FAILURE == null;
  }

  /** As {@link #load}, for callers whose own initialisation must not fail. */
  static void loadOrReport() {
    if (FAILURE != null && !ABSENCE_IGNORED) report(FAILURE);
  }

  private static String tryToLoad() {
    final String byName = failureOf("varn", true);
    if (byName == null) return null;
    if (isTaken(byName)) return taken(byName);
    final String path = property("varn.library");
    String byPath = "the system property varn.library is not set";
    if (path != null) {
      final String file = new File(path).getAbsolutePath();
      final String failure = failureOf(file, false);
      if (failure == null) return null;
      if (isTaken(failure)) return taken(failure);
      byPath = file + ", from the system property varn.library: " + failure;
    }
    return "libvarn cannot be loaded; tried varn by name: " + byName + "; " + byPath
        + " (-Dvarn.absent=ignore runs without it)";
  }

  // Why a name or a file cannot be loaded; null when it is.
  private static String failureOf(String library, boolean isName) {
    try {
      if (isName) {
        System.loadLibrary(library);
      } else {
        System.load(library);
      }
      return null;
    } catch (UnsatisfiedLinkError | SecurityException e) {
      return String.valueOf(e.getMessage()).replaceAll("\\s+", " ");
    }
  }

  // Another copy of the file would load, as a second agent in one process.
  private static boolean isTaken(String failure) {
    return failure.contains("already loaded in another classloader");
  }

  private static String taken(String failure) {
    return "libvarn cannot be loaded by a second class loader: put varn.jar into the one that all"
        + " applications share, and into no application: " + failure;
  }

  private static String property(String name) {
    try {
      return System.getProperty(name);
    } catch (SecurityException e) {
      return null;
    }
  }

  // Not through a logger: which one the server uses may not have been settled yet.
  private static void report(String line) {
    System.err.println("varn: " + line);
  }
}
