import com.vexholm.tran.Call;
import com.vexholm.tran.SttlParam;
import com.vexholm.tran.Tran;
import com.vexholm.tran.Transaction;
import com.vexholm.tran.api.TranApiAdapter;
import java.io.File;
import java.lang.reflect.InvocationTargetException;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.concurrent.Callable;

/**
 * Uses the native library where it may be absent, twice: Loading tran|adapter, or from two class
 * loaders, each with the jar, or below one that has it: Loading JAR [JAR_OF_APPLICATION].
 */
public final class Loading {

  public static void main(String[] args) throws Exception {
    for (int i = 0; i < 2; ++i) {
      if (args[0].equals("tran")) {
        say(() -> Tran.init("WAS1"));
        useAll();
      } else if (args[0].equals("adapter")) {
        say(() -> TranApiAdapter.Init("WAS1"));
      } else if (args.length == 1) {
        final Class<?> tran = loader(args[0], null).loadClass("com.vexholm.tran.Tran");
        say(() -> tran.getMethod("init", String.class).invoke(null, "WAS1"));
      }
    }
    if (args.length < 2) return;
    final ClassLoader shared = loader(args[0], null);
    for (int i = 0; i < 2; ++i) {
      final Class<?> application = loader(args[1], shared).loadClass("Transfer");
      say(() -> application.getMethod("main", String[].class).invoke(null, (Object) args));
    }
  }

  private static ClassLoader loader(String jar, ClassLoader parent) throws Exception {
    return new URLClassLoader(new URL[] {new File(jar).toURI().toURL()}, parent);
  }

  private static void say(Callable<Object> work) {
    try {
      System.out.println(work.call());
    } catch (InvocationTargetException e) {
      System.out.println(e.getCause());
    } catch (Exception | Error e) {
      System.out.println(e);
    }
  }

  private static void useAll() {
    try (Transaction tx = Tran.transaction("GID", "SVC").scrnId("screen").start();
        Call call = tx.call("call");
        Call db = Tran.dbCall("dbCall");
        Transaction telegram = Tran.start("GID", "SVC", null, new SttlParam())) {
      db.sqlId("id");
      db.sql("SELECT 1", 0, 1);
      telegram.response(null, new SttlParam());
      tx.error("1001", "message");
    }
    Tran.setTime();
    Tran.info("message");
    Tran.infoEx("X001", "text");
    Tran.event("2101", "message");
    Tran.errorInfo("1001", "message");
    System.out.println("[" + Tran.version() + "]");
    Tran.done();
  }
}
