// Prints a line for each device that the locator knows.
// mcs Devices.cs, or any C# compiler; the runtime finds talvorn.dll or libtalvorn.so.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using System.Text;

static class Native
{
    const string Library = "talvorn";

    [StructLayout(LayoutKind.Sequential)]
    public struct Device
    {
        public UIntPtr Size;
        public IntPtr Serial, Alias, Status, Clip, Ipv4, Ipv6, HostAlias, HostIpv4, HostIpv6;
        public uint Number;
    }

    [DllImport(Library)] public static extern IntPtr talvorn_status_text(int status);
    [DllImport(Library)] public static extern int talvorn_client_open(IntPtr options, out IntPtr client);
    [DllImport(Library)] public static extern void talvorn_client_close(IntPtr client);
    [DllImport(Library)] public static extern int talvorn_client_get_devices(IntPtr client, out IntPtr devices);
    [DllImport(Library)] public static extern UIntPtr talvorn_device_list_size(IntPtr devices);
    [DllImport(Library)] public static extern int talvorn_device_list_get(IntPtr devices, UIntPtr index, ref Device device);
    [DllImport(Library)] public static extern void talvorn_device_list_free(IntPtr devices);

    public static string Text(IntPtr utf8)
    {
        var bytes = new List<byte>();
        for (byte next; (next = Marshal.ReadByte(utf8, bytes.Count)) != 0;) bytes.Add(next);
        return Encoding.UTF8.GetString(bytes.ToArray());
    }

    public static void Check(int status)
    {
        if (status != 0) throw new InvalidOperationException(Text(talvorn_status_text(status)));
    }
}

sealed class Client : IDisposable
{
    IntPtr handle;

    public Client() { Native.Check(Native.talvorn_client_open(IntPtr.Zero, out handle)); }

    public IEnumerable<Tuple<string, string, string>> Devices()
    {
        IntPtr list;
        Native.Check(Native.talvorn_client_get_devices(handle, out list));
        var devices = new List<Tuple<string, string, string>>();
        for (uint index = 0; index < Native.talvorn_device_list_size(list).ToUInt64(); ++index)
        {
            var device = new Native.Device { Size = (UIntPtr)Marshal.SizeOf(typeof(Native.Device)) };
            Native.Check(Native.talvorn_device_list_get(list, (UIntPtr)index, ref device));
            devices.Add(Tuple.Create(Native.Text(device.Serial), Native.Text(device.Status),
                                     Native.Text(device.Alias)));
        }
        Native.talvorn_device_list_free(list);
        return devices;
    }

    public void Dispose()
    {
        Native.talvorn_client_close(handle);
        handle = IntPtr.Zero;
    }
}

static class Program
{
    static int Main()
    {
        try
        {
            using (var client = new Client())
                foreach (var device in client.Devices())
                    Console.WriteLine("{0} {1} {2}", device.Item1, device.Item2, device.Item3);
            return 0;
        }
        catch (InvalidOperationException error)
        {
            Console.Error.WriteLine("devices: " + error.Message);
            return 1;
        }
    }
}
